#include "ToolSupport.h"

#include <cctype>
#include <cerrno>
#include <charconv>
#include <cmath>
#include <cstring>
#include <ctime>
#include <fstream>
#include <sstream>

#include <quillcore/platform/PLPropertyList.h>
#include <quillcore/platform/PLPropertyListText.h>

namespace quillctl {

PLHolder<const PLObject> loadPropertyList(const std::string& path, std::string* error) {
    std::ifstream in(path, std::ios::binary);
    if (!in) {
        *error = std::string("cannot open: ") + std::strerror(errno);
        return nullptr;
    }
    std::ostringstream contents;
    contents << in.rdbuf();
    if (in.bad()) {
        *error = std::string("cannot read: ") + std::strerror(errno);
        return nullptr;
    }
    const std::string bytes = contents.str();
    if (bytes.empty()) {
        *error = "empty file";
        return nullptr;
    }
    std::string why;
    PLHolder<const PLObject> plist =
        PLPropertyListCreateFromBytes(bytes.data(), bytes.size(), PLMutability::Immutable, &why);
    if (!plist) *error = why;
    return plist;
}

std::vector<std::string> splitKeyPath(const std::string& keyPath) {
    std::vector<std::string> parts(1);
    for (std::size_t i = 0; i < keyPath.size(); ++i) {
        char c = keyPath[i];
        if (c == '\\' && i + 1 < keyPath.size()) {
            parts.back() += keyPath[++i];
        } else if (c == '.') {
            parts.emplace_back();
        } else {
            parts.back() += c;
        }
    }
    return parts;
}

namespace {

bool parseIndex(const std::string& text, std::size_t& index) {
    if (text.empty()) return false;
    auto [end, ec] = std::from_chars(text.data(), text.data() + text.size(), index);
    return ec == std::errc() && end == text.data() + text.size();
}

// The value of the longest run of components parts[i...] that, joined with
// dots, names a key of `dict`; `used` and `key` tell which run. Null when none.
const PLObject* longestKeyMatch(const PLDictionary* dict, const std::vector<std::string>& parts, std::size_t i,
                                std::size_t& used, std::string& key) {
    const PLObject* found = nullptr;
    std::string candidate;
    for (std::size_t j = i; j < parts.size(); ++j) {
        if (j > i) candidate += '.';
        candidate += parts[j];
        if (const PLObject* v = dict->get(candidate)) {
            found = v;
            used = j - i + 1;
            key = candidate;
        }
    }
    return found;
}

}  // namespace

const PLObject* resolveKeyPath(const PLObject* root, const std::string& keyPath, std::string* error) {
    const std::vector<std::string> parts = splitKeyPath(keyPath);
    const PLObject* node = root;
    std::string walked;
    std::size_t i = 0;
    while (i < parts.size()) {
        if (const PLDictionary* dict = PLDynamicCast<PLDictionary>(node)) {
            std::size_t used = 0;
            std::string longest;
            const PLObject* found = longestKeyMatch(dict, parts, i, used, longest);
            if (!found) {
                *error = "no key \"" + parts[i] + "\"" + (walked.empty() ? "" : " in " + walked);
                return nullptr;
            }
            walked += (walked.empty() ? "" : ".") + longest;
            node = found;
            i += used;
        } else if (const PLArray* array = PLDynamicCast<PLArray>(node)) {
            std::size_t index = 0;
            if (!parseIndex(parts[i], index)) {
                *error = "\"" + parts[i] + "\" is not an index into the array " +
                         (walked.empty() ? std::string("at the top") : walked);
                return nullptr;
            }
            if (index >= array->count()) {
                *error = "index " + parts[i] + " is out of range for " +
                         (walked.empty() ? std::string("the top array") : walked) + " (" +
                         std::to_string(array->count()) + " elements)";
                return nullptr;
            }
            walked += (walked.empty() ? "" : ".") + parts[i];
            node = array->at(index);
            ++i;
        } else {
            *error = (walked.empty() ? std::string("the top value") : walked) + " is a " + PLTypeName(node->typeID()) +
                     ", not a dictionary or array";
            return nullptr;
        }
    }
    return node;
}

namespace {

bool isContainer(const PLObject* value) { return PLDictionary::matches(*value) || PLArray::matches(*value); }

std::string joined(const std::string& walked, const std::string& key) {
    return walked.empty() ? key : walked + "." + key;
}

// A chain of new dictionaries holding `value` at parts[i...].
PLHolder<const PLObject> newBranch(const std::vector<std::string>& parts, std::size_t i, const PLObject* value) {
    if (i == parts.size()) return PLHolder<const PLObject>::retain(value);
    PLHolder<PLMutableDictionary> dict = PLMutableDictionary::create();
    dict->set(PLString::create(parts[i]), newBranch(parts, i + 1, value));
    return dict;
}

// `node` (a container) with the edit of parts[i...] applied; see editKeyPath.
PLHolder<const PLObject> edited(const PLObject* node, const std::vector<std::string>& parts, std::size_t i,
                                const PLObject* value, const std::string& walked, std::string* error) {
    if (const PLDictionary* dict = PLDynamicCast<PLDictionary>(node)) {
        std::size_t used = 0;
        std::string longest;
        const PLObject* found = longestKeyMatch(dict, parts, i, used, longest);
        PLHolder<PLMutableDictionary> copy = PLDictionaryCreateMutableCopy(dict);
        if (!found) {
            if (!value) {
                *error = "no key \"" + parts[i] + "\"" + (walked.empty() ? "" : " in " + walked);
                return nullptr;
            }
            copy->set(PLString::create(parts[i]), newBranch(parts, i + 1, value));
            return copy;
        }
        PLHolder<const PLString> key = PLString::create(longest);
        if (i + used == parts.size()) {
            if (value)
                copy->set(key, PLHolder<const PLObject>::retain(value));
            else
                copy->remove(key.get());
            return copy;
        }
        if (!isContainer(found)) {
            *error = joined(walked, longest) + " is a " + PLTypeName(found->typeID()) + ", not a dictionary or array";
            return nullptr;
        }
        PLHolder<const PLObject> child = edited(found, parts, i + used, value, joined(walked, longest), error);
        if (!child) return nullptr;
        copy->set(key, std::move(child));
        return copy;
    }

    const PLArray* array = PLDynamicCast<PLArray>(node);
    std::size_t index = 0;
    if (!parseIndex(parts[i], index)) {
        *error = "\"" + parts[i] + "\" is not an index into the array " +
                 (walked.empty() ? std::string("at the top") : walked);
        return nullptr;
    }
    const bool last = i + 1 == parts.size();
    const bool appending = last && value && index == array->count();
    if (index >= array->count() && !appending) {
        *error = "index " + parts[i] + " is out of range for " +
                 (walked.empty() ? std::string("the top array") : walked) + " (" + std::to_string(array->count()) +
                 " elements)";
        return nullptr;
    }
    PLHolder<PLMutableArray> copy = PLArrayCreateMutableCopy(array);
    if (appending) {
        copy->append(PLHolder<const PLObject>::retain(value));
    } else if (last) {
        if (value)
            copy->set(index, PLHolder<const PLObject>::retain(value));
        else
            copy->removeAt(index);
    } else {
        const PLObject* child = array->at(index);
        const std::string place = joined(walked, parts[i]);
        if (!isContainer(child)) {
            *error = place + " is a " + PLTypeName(child->typeID()) + ", not a dictionary or array";
            return nullptr;
        }
        PLHolder<const PLObject> changed = edited(child, parts, i + 1, value, place, error);
        if (!changed) return nullptr;
        copy->set(index, std::move(changed));
    }
    return copy;
}

bool parseBool(std::string text, bool& out) {
    for (char& c : text) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    if (text == "true" || text == "yes" || text == "1") {
        out = true;
        return true;
    }
    if (text == "false" || text == "no" || text == "0") {
        out = false;
        return true;
    }
    return false;
}

// "YYYY-MM-DDTHH:MM:SSZ" or "YYYY-MM-DD HH:MM:SS" (UTC) as an absolute time.
// Year 0, which the property-list reader accepts, is refused: no property
// list could be written with it.
bool parseDate(const std::string& text, double& out, std::string& why) {
    const bool iso = text.size() == 20 && text[10] == 'T' && text[19] == 'Z';
    const bool plain = text.size() == 19 && text[10] == ' ';
    PLDateTextStatus status = PLDateTextStatus::Malformed;
    if (iso || plain) {
        std::string asISO = text;
        if (plain) asISO.replace(10, 1, "T").push_back('Z');
        status = PLDateFromISO8601(asISO, &out);
        if (status == PLDateTextStatus::OK && text.compare(0, 4, "0000") == 0) status = PLDateTextStatus::OutOfRange;
    }
    switch (status) {
        case PLDateTextStatus::OK: return true;
        case PLDateTextStatus::Malformed: why = "not YYYY-MM-DDTHH:MM:SSZ or YYYY-MM-DD HH:MM:SS"; break;
        case PLDateTextStatus::OutOfRange: why = "no such date or time"; break;
    }
    return false;
}

// Base64 with optional padding (which then completes the last group of four)
// and no white space.
bool decodeBase64(const std::string& text, std::vector<std::uint8_t>& out) {
    std::size_t end = text.size();
    std::size_t padding = 0;
    while (end > 0 && text[end - 1] == '=' && padding < 2) --end, ++padding;
    if (padding > 0 && text.size() % 4 != 0) return false;
    out.resize(end * 3 / 4);
    return PLBase64Decode(text.data(), end, out.data()) == PLBase64Status::OK;
}

}  // namespace

PLHolder<const PLObject> editKeyPath(const PLObject* root, const std::string& keyPath, const PLObject* value,
                                     std::string* error) {
    if (!isContainer(root)) {
        *error = std::string("the top value is a ") + PLTypeName(root->typeID()) + ", not a dictionary or array";
        return nullptr;
    }
    return edited(root, splitKeyPath(keyPath), 0, value, std::string(), error);
}

const std::vector<std::string>& valueTypeNames() {
    static const std::vector<std::string> names = {"string", "integer", "real", "bool", "date", "data"};
    return names;
}

PLHolder<const PLObject> parseTypedValue(const std::string& type, const std::string& text, std::string* error) {
    const std::string bad = "bad " + type + " value \"" + text + "\": ";
    const char* first = text.data() + (text.size() > 1 && text[0] == '+' ? 1 : 0);
    const char* last = text.data() + text.size();
    if (type == "string") return PLString::create(text);
    // Integers and reals: the whole text, in decimal, within the type's range.
    auto number = [&](auto value, const char* range, const char* kind) -> PLHolder<const PLObject> {
        auto [end, ec] = std::from_chars(first, last, value);
        if (ec == std::errc::result_out_of_range) {
            *error = bad + "out of " + range;
            return nullptr;
        }
        if (ec != std::errc() || end != last || text.empty()) {
            *error = bad + "not a decimal " + kind;
            return nullptr;
        }
        return PLNumber::create(value);
    };
    if (type == "integer")
        return number(std::int64_t{0}, "the 64-bit integer range (-9223372036854775808 to 9223372036854775807)",
                      "integer");
    if (type == "real") return number(0.0, "the range of a double", "real number");
    if (type == "bool") {
        bool flag = false;
        if (!parseBool(text, flag)) {
            *error = bad + "not true/false, yes/no or 1/0";
            return nullptr;
        }
        return PLHolder<const PLObject>::retain(PLBoolean::get(flag));
    }
    if (type == "date") {
        double at = 0;
        std::string why;
        if (!parseDate(text, at, why)) {
            *error = bad + why;
            return nullptr;
        }
        return PLDate::create(at);
    }
    if (type == "data") {
        std::vector<std::uint8_t> bytes;
        if (!decodeBase64(text, bytes)) {
            *error = bad + "not base64";
            return nullptr;
        }
        return PLData::create(std::move(bytes));
    }
    *error = "unknown value type \"" + type + "\"";
    return nullptr;
}

std::string isoDate(double absoluteTime) {
    double whole = std::floor(absoluteTime);
    std::time_t t = static_cast<std::time_t>(whole + kPLAbsoluteTimeIntervalSince1970);
    std::tm tm{};
    gmtime_r(&t, &tm);
    char buf[64];
    std::strftime(buf, sizeof buf, "%Y-%m-%dT%H:%M:%SZ", &tm);
    return buf;
}

bool formatValue(const PLObject* value, std::string& out, std::string* error) {
    char num[64];
    switch (value->typeID()) {
        case PLTypeID::String: out += static_cast<const PLString*>(value)->utf8(); break;
        case PLTypeID::Number: {
            auto* n = static_cast<const PLNumber*>(value);
            auto r = n->isFloat() ? std::to_chars(num, num + sizeof num, n->doubleValue())
                                  : std::to_chars(num, num + sizeof num, n->int64Value());
            out.append(num, r.ptr);
            break;
        }
        case PLTypeID::Boolean: out += static_cast<const PLBoolean*>(value)->value() ? "true" : "false"; break;
        case PLTypeID::Date: out += isoDate(static_cast<const PLDate*>(value)->absoluteTime()); break;
        case PLTypeID::Data: {
            auto* d = static_cast<const PLData*>(value);
            const std::size_t start = out.size();
            out.resize(start + PLBase64EncodedLength(d->size()));
            PLBase64Encode(d->bytes(), d->size(), out.data() + start);
            break;
        }
        case PLTypeID::URL: out += static_cast<const PLURL*>(value)->text(); break;
        case PLTypeID::Array:
        case PLTypeID::Dictionary: return PLPropertyListWriteXML(value, out, error);
    }
    out += '\n';
    return true;
}

const char* keyPathHelp() {
    return "Dot-separated key path; array elements by index; \"\\.\" for a literal dot. "
           "Keys that contain dots (service kinds) match as a whole.";
}

}  // namespace quillctl

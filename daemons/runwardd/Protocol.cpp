#include "Protocol.h"

#include <array>

#include <quillcore/platform/PLPropertyList.h>

namespace runward {

namespace {

std::string frame(const PLDictionary& dict) {
    std::string body;
    if (!PLPropertyListWriteXML(&dict, body)) body.clear();
    std::string out;
    auto size = static_cast<std::uint32_t>(body.size());
    out.push_back(static_cast<char>(size >> 24));
    out.push_back(static_cast<char>(size >> 16));
    out.push_back(static_cast<char>(size >> 8));
    out.push_back(static_cast<char>(size));
    return out + body;
}

void setText(PLMutableDictionary& dict, const char* key, const std::string& value) {
    if (!value.empty()) dict.set(PLString::create(key), PLString::create(value));
}

const PLDictionary* parse(std::string_view payload, PLHolder<const PLObject>& holder, std::string& problem) {
    std::string reason;
    holder = PLPropertyListCreateFromBytes(payload.data(), payload.size(), PLMutability::Immutable, &reason);
    if (!holder) {
        problem = "not a property list: " + reason;
        return nullptr;
    }
    const PLDictionary* dict = PLDynamicCast<PLDictionary>(holder.get());
    if (!dict) problem = "the message is not a dictionary";
    return dict;
}

bool getText(const PLDictionary& dict, const char* key, std::string& out, std::string& problem) {
    const PLObject* value = dict.get(key);
    if (!value) return true;
    const PLString* text = PLDynamicCast<PLString>(value);
    if (!text) {
        problem = std::string("\"") + key + "\" is not a string";
        return false;
    }
    out = text->str();
    return true;
}

}  // namespace

std::string encodeRequest(const Request& request) {
    auto dict = PLMutableDictionary::create();
    setText(*dict, "Command", request.command);
    setText(*dict, "Label", request.label);
    setText(*dict, "Session", request.session);
    setText(*dict, "Domain", request.domain);
    if (request.definition) dict->set(PLString::create("Definition"), request.definition);
    return frame(*dict);
}

std::string encodeReply(const Reply& reply) {
    auto dict = PLMutableDictionary::create();
    dict->set(PLString::create("Status"), PLNumber::create(reply.status));
    setText(*dict, "Message", reply.message);
    setText(*dict, "Output", reply.output);
    return frame(*dict);
}

std::optional<Request> decodeRequest(std::string_view payload, std::string& problem) {
    PLHolder<const PLObject> holder;
    const PLDictionary* dict = parse(payload, holder, problem);
    if (!dict) return std::nullopt;
    Request request;
    if (!getText(*dict, "Command", request.command, problem) || !getText(*dict, "Label", request.label, problem) ||
        !getText(*dict, "Session", request.session, problem) || !getText(*dict, "Domain", request.domain, problem)) {
        return std::nullopt;
    }
    if (request.command != "load" && request.command != "unload" && request.command != "list") {
        problem = "unknown command \"" + request.command + "\"";
        return std::nullopt;
    }
    if (const PLObject* definition = dict->get("Definition")) {
        const PLDictionary* definitionDict = PLDynamicCast<PLDictionary>(definition);
        if (!definitionDict) {
            problem = "\"Definition\" is not a dictionary";
            return std::nullopt;
        }
        request.definition = PLHolder<const PLDictionary>::retain(definitionDict);
    }
    if (request.command != "list" && !request.definition) {
        problem = "\"" + request.command + "\" needs a \"Definition\"";
        return std::nullopt;
    }
    return request;
}

std::optional<Reply> decodeReply(std::string_view payload, std::string& problem) {
    PLHolder<const PLObject> holder;
    const PLDictionary* dict = parse(payload, holder, problem);
    if (!dict) return std::nullopt;
    Reply reply;
    const PLNumber* status = PLDynamicCast<PLNumber>(dict->get("Status"));
    if (!status || status->isFloat()) {
        problem = "no integer \"Status\"";
        return std::nullopt;
    }
    reply.status = status->int32Value();
    if (!getText(*dict, "Message", reply.message, problem) || !getText(*dict, "Output", reply.output, problem)) {
        return std::nullopt;
    }
    return reply;
}

std::optional<std::string> FrameReader::next(bool& oversized) {
    oversized = false;
    if (_buffer.size() < 4) return std::nullopt;
    std::uint32_t size = 0;
    for (int i = 0; i < 4; ++i) size = (size << 8) | static_cast<unsigned char>(_buffer[static_cast<std::size_t>(i)]);
    if (size > kMaxFrameSize) {
        oversized = true;
        return std::nullopt;
    }
    if (_buffer.size() < 4 + static_cast<std::size_t>(size)) return std::nullopt;
    std::string payload = _buffer.substr(4, size);
    _buffer.erase(0, 4 + static_cast<std::size_t>(size));
    return payload;
}

bool isKnownSession(std::string_view text) {
    static constexpr std::array<std::string_view, 5> kSessions = {"Aqua", "LoginWindow", "Background", "StandardIO",
                                                                  "System"};
    for (auto known : kSessions)
        if (known == text) return true;
    return false;
}

bool isKnownDomain(std::string_view text) {
    static constexpr std::array<std::string_view, 5> kDomains = {"system", "local", "network", "user", "all"};
    for (auto known : kDomains)
        if (known == text) return true;
    return false;
}

}  // namespace runward

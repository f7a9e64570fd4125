#include <new>
#include <random>

#include <climits>
#include <expat.h>

#include "ferrocore/XMLText.h"
#include <ferrocore/CException.h>
#include <ferrocore/CXMLService.h>
#include <ferrocore/Format.h>

namespace ferrocore {

namespace {

// The thread's parser, made on first use and reset for every document: making
// a parser costs more than most of the small texts we parse. The hash salt
// (which keeps crafted names from degrading expat's hash tables) is drawn once
// per thread; left unset, expat would ask the system for a new one at every
// parse, which doubles the cost of a short text.
XML_Parser threadParser() {
    struct Holder {
        XML_Parser parser = nullptr;
        unsigned long salt = 0;
        ~Holder() {
            if (parser) XML_ParserFree(parser);
        }
    };
    thread_local Holder holder;
    if (!holder.parser) {
        holder.parser = XML_ParserCreate("UTF-8");
        if (!holder.parser) throw std::bad_alloc();
        std::random_device random;
        while (holder.salt == 0)
            holder.salt = static_cast<unsigned long>((static_cast<unsigned long long>(random()) << 32) ^ random());
    } else {
        XML_ParserReset(holder.parser, "UTF-8");
    }
    XML_SetHashSalt(holder.parser, holder.salt);
    return holder.parser;
}

bool isNameStartCharacter(char32_t c) {
    return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || c == '_' || c == ':' || (c >= 0xC0 && c <= 0xD6) ||
           (c >= 0xD8 && c <= 0xF6) || (c >= 0xF8 && c <= 0x2FF) || (c >= 0x370 && c <= 0x37D) ||
           (c >= 0x37F && c <= 0x1FFF) || (c >= 0x200C && c <= 0x200D) || (c >= 0x2070 && c <= 0x218F) ||
           (c >= 0x2C00 && c <= 0x2FEF) || (c >= 0x3001 && c <= 0xD7FF) || (c >= 0xF900 && c <= 0xFDCF) ||
           (c >= 0xFDF0 && c <= 0xFFFD) || (c >= 0x10000 && c <= 0xEFFFF);
}

bool isNameCharacter(char32_t c) {
    return isNameStartCharacter(c) || c == '-' || c == '.' || (c >= '0' && c <= '9') || c == 0xB7 ||
           (c >= 0x300 && c <= 0x36F) || (c >= 0x203F && c <= 0x2040);
}

bool isXMLName(std::string_view name) {
    if (name.empty()) return false;
    std::size_t pos = 0;
    bool first = true;
    while (pos < name.size()) {
        char32_t c;
        const std::size_t length = utf8::sequenceLength(name, pos, c);
        if (length == 0) return false;
        pos += length;
        if (first ? !isNameStartCharacter(c) : !isNameCharacter(c)) return false;
        first = false;
    }
    return true;
}

}  // namespace

// Collects the tree (or, for isWellFormed, only checks) while expat parses.
struct CXMLService::Builder {
    enum class Refusal { None, DocumentType, Depth, Memory };

    XML_Parser parser;
    CXMLService* document;  // null when only checking
    std::vector<CXMLService*> open;
    std::size_t depth = 0;
    Refusal refusal = Refusal::None;
    XML_Size line = 0;
    XML_Size column = 0;

    void refuse(Refusal why) {
        if (refusal != Refusal::None) return;
        refusal = why;
        line = XML_GetCurrentLineNumber(parser);
        column = XML_GetCurrentColumnNumber(parser);
        XML_StopParser(parser, XML_FALSE);
    }

    static void XMLCALL startElement(void* data, const XML_Char* name, const XML_Char** attributes) {
        auto* self = static_cast<Builder*>(data);
        if (++self->depth > kMaxXMLDepth) {
            self->refuse(Refusal::Depth);
            return;
        }
        if (!self->document) return;
        // No exception may unwind through the C parser.
        try {
            CXMLService* parent = self->open.empty() ? self->document : self->open.back();
            CXMLServiceRef element(new CXMLService(Element{}, name));
            for (const XML_Char** a = attributes; a[0]; a += 2) element->_attributes.emplace_back(a[0], a[1]);
            parent->_content.push_back(Content{{}, static_cast<std::ptrdiff_t>(parent->_children.size())});
            parent->_children.push_back(element);
            self->open.push_back(element.get());
        } catch (...) {
            self->refuse(Refusal::Memory);
        }
    }

    static void XMLCALL endElement(void* data, const XML_Char*) {
        auto* self = static_cast<Builder*>(data);
        --self->depth;
        if (self->document && !self->open.empty()) self->open.pop_back();
    }

    static void XMLCALL characterData(void* data, const XML_Char* text, int length) {
        auto* self = static_cast<Builder*>(data);
        if (!self->document || self->open.empty()) return;
        try {
            std::vector<Content>& content = self->open.back()->_content;
            if (content.empty() || content.back().child >= 0) content.push_back(Content{});
            content.back().text.append(text, static_cast<std::size_t>(length));
        } catch (...) {
            self->refuse(Refusal::Memory);
        }
    }

    static void XMLCALL xmlDeclaration(void* data, const XML_Char* version, const XML_Char*, int standalone) {
        auto* self = static_cast<Builder*>(data);
        // Also called for the text declaration of an external entity, which we
        // never read; only the document's own declaration counts.
        if (!self->document || !version) return;
        try {
            self->document->_declarationVersion = version;
            self->document->_hasXMLHeader = true;
            self->document->_declarationStandalone = standalone;
        } catch (...) {
            self->refuse(Refusal::Memory);
        }
    }

    static void XMLCALL startDocumentType(void* data, const XML_Char*, const XML_Char*, const XML_Char*, int) {
        static_cast<Builder*>(data)->refuse(Refusal::DocumentType);
    }

    // Parses `text`; returns an empty string on success, else the reason.
    static std::string parse(std::string_view text, CXMLService* document) {
        if (text.size() > static_cast<std::size_t>(INT_MAX)) return "CXMLService: text too long";
        Builder builder{threadParser(), document, {}};
        XML_SetUserData(builder.parser, &builder);
        XML_SetElementHandler(builder.parser, startElement, endElement);
        if (document) {
            XML_SetCharacterDataHandler(builder.parser, characterData);
            XML_SetXmlDeclHandler(builder.parser, xmlDeclaration);
        }
        XML_SetStartDoctypeDeclHandler(builder.parser, startDocumentType);
        const XML_Status status = XML_Parse(builder.parser, text.data(), static_cast<int>(text.size()), XML_TRUE);
        switch (builder.refusal) {
            case Refusal::DocumentType:
                return formatString("CXMLService: document type declarations are not accepted, line %lu, column %lu",
                                    static_cast<unsigned long>(builder.line),
                                    static_cast<unsigned long>(builder.column));
            case Refusal::Depth:
                return formatString("CXMLService: elements nested deeper than %zu, line %lu, column %lu", kMaxXMLDepth,
                                    static_cast<unsigned long>(builder.line),
                                    static_cast<unsigned long>(builder.column));
            case Refusal::Memory: throw std::bad_alloc();
            case Refusal::None: break;
        }
        if (status != XML_STATUS_OK) {
            return formatString("CXMLService: text is not well-formed XML, line %lu, column %lu: %s",
                                static_cast<unsigned long>(XML_GetCurrentLineNumber(builder.parser)),
                                static_cast<unsigned long>(XML_GetCurrentColumnNumber(builder.parser)),
                                XML_ErrorString(XML_GetErrorCode(builder.parser)));
        }
        return std::string();
    }
};

CXMLService::CXMLService(std::string_view text) : _isDocument(true), _name("#document") {
    std::string failure = Builder::parse(text, this);
    if (!failure.empty()) throw CParamException(std::move(failure));
}

CXMLService::CXMLService(Element, std::string_view name) : _name(name) {}

CXMLService::~CXMLService() = default;

bool CXMLService::isWellFormed(std::string_view text) noexcept {
    try {
        return Builder::parse(text, nullptr).empty();
    } catch (...) {
        return false;
    }
}

CXMLServiceRef CXMLService::childAtIndex(std::size_t index) const {
    return index < _children.size() ? _children[index] : CXMLServiceRef();
}

CStringRef CXMLService::getAttributeValueAsString(std::string_view name) const {
    for (const CXMLAttributePair& attribute : _attributes) {
        if (attribute.name == name) return CString::create(attribute.value);
    }
    return CStringRef();
}

void CXMLService::addAttribute(const CXMLAttributePair& attribute) {
    if (_isDocument) throw CParamException("CXMLService::addAttribute: a document has no attributes");
    if (!isXMLName(attribute.name))
        throw CParamException(formatString("CXMLService::addAttribute: \"%s\" is not an XML name", attribute.name));
    for (CXMLAttributePair& existing : _attributes) {
        if (existing.name == attribute.name) {
            existing.value = attribute.value;
            return;
        }
    }
    _attributes.push_back(attribute);
}

std::string CXMLService::textContent() const {
    std::string text;
    for (const Content& piece : _content) {
        if (piece.child < 0) text += piece.text;
    }
    return text;
}

std::string CXMLService::xmlString() const {
    std::string out;
    appendXML(out);
    return out;
}

void CXMLService::appendXML(std::string& out) const {
    if (_isDocument) {
        if (_hasXMLHeader) {
            out += "<?xml version=\"";
            xmltext::appendEscaped(out, _declarationVersion, true);
            out += "\" encoding=\"UTF-8\"";
            if (_declarationStandalone == 1) out += " standalone=\"yes\"";
            if (_declarationStandalone == 0) out += " standalone=\"no\"";
            out += "?>";
        }
        for (const CXMLServiceRef& child : _children) child->appendXML(out);
        return;
    }
    out += '<';
    out += _name;
    for (const CXMLAttributePair& attribute : _attributes) {
        out += ' ';
        out += attribute.name;
        out += "=\"";
        xmltext::appendEscaped(out, attribute.value, true);
        out += '"';
    }
    if (_content.empty()) {
        out += "/>";
        return;
    }
    out += '>';
    for (const Content& piece : _content) {
        if (piece.child >= 0)
            _children[static_cast<std::size_t>(piece.child)]->appendXML(out);
        else
            xmltext::appendEscaped(out, piece.text, false);
    }
    out += "</";
    out += _name;
    out += '>';
}

}  // namespace ferrocore

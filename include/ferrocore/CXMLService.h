// XML documents and elements parsed from text.
//
// Parsing a text gives a document node (node name "#document") whose only
// child is the document's root element; elements have a name, attributes in
// document order, and content: character data and child elements in
// document order. childAtIndex()/childCount() see the element children only.
// Comments and processing instructions are not kept; CDATA sections become
// plain character data.
//
// The parser is conforming: text that is not well-formed XML (an unclosed or
// mismatched tag, a duplicate attribute, malformed UTF-8, an undefined entity,
// text after the root element, ...) is refused with an exception, never
// repaired. Text is always read as UTF-8 whatever its declaration says.
// Document type declarations are refused too, so no entity can be declared
// and nothing is ever expanded or fetched; and elements nested deeper than
// kMaxXMLDepth are refused as a resource limit.
//
// Threads: a node may be read from any number of threads at once;
// addAttribute() needs exclusive access to the node. Parsing on different
// threads at once is safe (each thread has its own parser).
#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

#include <ferrocore/CSharedObject.h>
#include <ferrocore/CString.h>
#include <ferrocore/export.h>

namespace ferrocore {

class CXMLService;
using CXMLServiceRef = CSharedObjectRef<CXMLService>;

inline constexpr std::size_t kMaxXMLDepth = 512;

// One attribute: a name and its (plain, unescaped) value.
struct CXMLAttributePair {
    CXMLAttributePair(std::string_view attributeName, std::string_view attributeValue)
        : name(attributeName), value(attributeValue) {}

    std::string name;
    std::string value;

    friend bool operator==(const CXMLAttributePair&, const CXMLAttributePair&) = default;
};

class FERROCORE_EXPORT CXMLService final : public CSharedObject {
public:
    // Parses `text` into a document. Throws CParamException when the text is
    // not well-formed, naming the line, the column and the problem
    // ("CXMLService: text is not well-formed XML, line 1, column 5: mismatched
    // tag"), or when it holds a document type declaration or nests too deep.
    explicit CXMLService(std::string_view text);
    static CXMLServiceRef create(std::string_view text) { return makeShared<CXMLService>(text); }
    // Whether the constructor would accept `text`; cheaper, builds nothing.
    static bool isWellFormed(std::string_view text) noexcept;

    bool isDocument() const noexcept { return _isDocument; }
    // The element's name, or "#document".
    const std::string& nodeName() const noexcept { return _name; }

    std::size_t childCount() const noexcept { return _children.size(); }
    // The element child at `index` (shared with this node: changes made
    // through it show in this document), or null when index >= childCount().
    CXMLServiceRef childAtIndex(std::size_t index) const;

    // The value of the attribute called `name`, or null when there is none.
    CStringRef getAttributeValueAsString(std::string_view name) const;
    const std::vector<CXMLAttributePair>& attributes() const noexcept { return _attributes; }
    // Adds an attribute after the existing ones; when one of that name exists
    // already, its value is replaced where it stands. Throws CParamException
    // when this is a document or the name is not an XML name.
    void addAttribute(const CXMLAttributePair& attribute);

    // The character data directly inside this element (not that of its
    // children), joined.
    std::string textContent() const;

    // The node as XML text. An element gives its own markup; a document gives
    // an XML declaration (when the parsed text had one: version and standalone
    // as they were, encoding "UTF-8") followed directly by the root element.
    // Attribute values and character data are escaped so that the text parses
    // back to the same names, attributes and character data; characters that
    // XML cannot carry are written as U+FFFD.
    std::string xmlString() const;

    // Whether the parsed text began with an XML declaration ("<?xml ...?>").
    // Always false for an element.
    bool HasXMLHeader() const noexcept { return _hasXMLHeader; }

private:
    struct Element {};
    CXMLService(Element, std::string_view name);
    ~CXMLService() override;

    struct Content {
        std::string text;
        std::ptrdiff_t child = -1;  // index into _children, or -1 for text
    };
    struct Builder;
    friend struct Builder;

    void appendXML(std::string& out) const;

    bool _isDocument = false;
    bool _hasXMLHeader = false;
    std::string _name;
    std::string _declarationVersion;
    int _declarationStandalone = -1;  // -1 not given, 0 "no", 1 "yes"
    std::vector<CXMLAttributePair> _attributes;
    std::vector<CXMLServiceRef> _children;
    std::vector<Content> _content;
};

// For "%@": the XML text.
inline std::string ferrocoreDescription(const CXMLService& node) { return node.xmlString(); }

}  // namespace ferrocore

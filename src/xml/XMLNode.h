// XMLNode: the small in-memory XML document model every request, answer and agent reply
// goes through. A handle shares its element (reference counted); an empty handle means
// "not found" and every query on it returns an empty value, so lookups chain without checks.
// Element names compare case-insensitively. Texts are 8-bit strings (UTF-8 passes through).
#pragma once

#include <cstddef>
#include <functional>
#include <string>

enum XMLError {
    eXMLErrorNone = 0,
    eXMLErrorMissingEndTag,  // "Warning: Unmatched end tag"
    eXMLErrorNoXMLTagFound,  // "Warning: No XML tag found"
    eXMLErrorEmpty,          // "Error: No XML data"
    eXMLErrorMissingTagName,
    eXMLErrorMissingEndTagName,
    eXMLErrorUnmatchedEndTag,
    eXMLErrorUnmatchedEndClearTag,
    eXMLErrorUnexpectedToken,
    eXMLErrorNoElements,
    eXMLErrorFileNotFound,
    eXMLErrorFirstTagNotFound,
    eXMLErrorUnknownCharacterEntity,
    eXMLErrorCharacterCodeAbove255,
    eXMLErrorCharConversionError,
    eXMLErrorCannotOpenWriteFile,
    eXMLErrorCannotWriteFile,

    eXMLErrorBase64DataSizeIsNotMultipleOf4,
    eXMLErrorBase64DecodeIllegalCharacter,
    eXMLErrorBase64DecodeTruncatedData,
    eXMLErrorBase64DecodeBufferTooSmall
};

struct XMLResults {
    XMLError error = eXMLErrorNone;
    int nLine = 0;
    int nColumn = 0;
};

struct XMLNodeData;  // private element record

class XMLNode {
public:
    XMLNode() = default;  // empty handle
    XMLNode(const XMLNode& other);
    XMLNode(XMLNode&& other) noexcept;
    XMLNode& operator=(const XMLNode& other);
    XMLNode& operator=(XMLNode&& other) noexcept;
    ~XMLNode();

    static XMLNode emptyNode() { return XMLNode(); }
    static const char* getVersion() { return "v2.44"; }
    static const char* getError(XMLError error);

    // Parses text and returns the top element named tag (case-insensitive). With tag null the
    // result is an unnamed document node whose children are the top-level elements.
    // On failure the result is empty and results (when given) tells why and where.
    static XMLNode parseString(const char* text, const char* tag = nullptr, XMLResults* results = nullptr);
    static XMLNode parseString(const std::string& text, const char* tag = nullptr, XMLResults* results = nullptr) {
        return parseString(text.c_str(), tag, results);
    }
    static XMLNode parseFile(const char* path, const char* tag = nullptr, XMLResults* results = nullptr);
    static XMLNode createXMLTopNode(const char* name, bool isDeclaration = false);

    bool isEmpty() const { return d_ == nullptr; }
    bool isDeclaration() const;
    XMLNode deepCopy() const;

    // Navigation. Name lookups are case-insensitive; i counts from 0.
    const char* getName() const;  // null on an empty handle
    XMLNode getParentNode() const;
    int nChildNode() const;
    int nChildNode(const char* name) const;
    XMLNode getChildNode(int i = 0) const;
    XMLNode getChildNode(const char* name, int i = 0) const;
    // Like getChildNode(name, *i) but starts at *i and stores the next index there.
    XMLNode getChildNode(const char* name, int* i) const;
    XMLNode getChildNodeWithAttribute(const char* name, const char* attributeName,
                                      const char* attributeValue = nullptr, int* i = nullptr) const;
    XMLNode getChildNodeByPath(const char* path, char separator = '/') const;

    int nText() const;
    const char* getText(int i = 0) const;  // null when there is no such text
    int nClear() const;
    const char* getClear(int i = 0) const;  // the verbatim content of the i-th clear section

    int nAttribute() const;
    const char* getAttribute(const char* name, int* i = nullptr) const;  // null when absent
    bool isAttributeSet(const char* name) const;
    const char* getAttributeName(int i = 0) const;
    const char* getAttributeValue(int i = 0) const;

    // Editing. pos -1 appends; content keeps its relative order (children, texts, clears).
    XMLNode addChild(const char* name, bool isDeclaration = false, int pos = -1);
    XMLNode addChild(XMLNode child, int pos = -1);  // detaches child from its former parent
    void addText(const char* text, int pos = -1);
    void addAttribute(const char* name, const char* value);
    void addClear(const char* text, const char* open = "<![CDATA[", const char* close = "]]>", int pos = -1);
    // Variants that take ownership of strings allocated with malloc (e.g. by stringDup).
    XMLNode addChild_WOSD(char* name, bool isDeclaration = false, int pos = -1);
    void addText_WOSD(char* text, int pos = -1);
    void addAttribute_WOSD(char* name, char* value);

    void updateName(const char* name);
    void updateText(const char* text, int i = 0);           // adds the text when there is none
    void updateAttribute(const char* value, const char* name);  // adds the attribute when absent
    void deleteText(int i = 0);
    void deleteAttribute(const char* name);
    void deleteAttribute(int i = 0);
    void deleteClear(int i = 0);
    // Removes this element and its subtree from its document and empties this handle; other
    // handles still referring to it keep the detached subtree alive until they go.
    void deleteNodeContent();

    // Output. nFormat > 0: tab-indented, one element per line; 0: no added whitespace.
    // The returned text is released with freeXMLString (an empty handle gives "", never null).
    char* createXMLString(int nFormat = 1, int* length = nullptr) const;
    static void freeXMLString(char* text);
    std::string toString(int nFormat = 1) const;
    // Appends the printed tree, indented as content at `depth`.
    void appendTo(std::string& out, int nFormat = 1, int depth = 0) const;

    // Content written by a callback when the tree is printed, at this position among the
    // element's content: long runs of elements (a listing's rows) go straight into the output
    // instead of being held as a tree first. The callback gets the output, the indentation depth
    // of the content and whether the output is formatted. It is not searched, counted or copied
    // as children are; a deep copy shares it.
    using ContentWriter = std::function<void(std::string& out, int depth, bool formatted)>;
    void addContentWriter(ContentWriter writer);
    XMLError writeToFile(const char* path, const char* encoding = nullptr, int nFormat = 1) const;

    bool operator==(const XMLNode& other) const { return d_ == other.d_; }  // same element

private:
    explicit XMLNode(XMLNodeData* d);  // takes one reference
    XMLNodeData* d_ = nullptr;
    friend struct XMLNodeData;
    friend class XMLTreeBuilder;
};

// Text conversion helpers: each returns its default for a null text.
const char* xmltoa(const char* t, const char* v = "");
bool xmltob(const char* t, bool v = false);
int xmltoi(const char* t, int v = 0);
long long xmltol(const char* t, long long v = 0);
double xmltof(const char* t, double v = 0.0);
char xmltoc(const char* t, char v = '\0');

char* stringDup(const char* source, int length = -1);  // malloc'd copy, freed with free()

// Escapes & < > " ' as the five entities.
class ToXMLStringTool {
public:
    static std::string toXML(const char* source);
    static void appendEscaped(std::string& out, const char* source, size_t length);
};

// Base64 with the standard alphabet; encode can break lines (72 characters) when formatted.
class XMLParserBase64Tool {
public:
    static std::string encode(const unsigned char* data, size_t length, bool formatted = false);
    static size_t decodeSize(const char* text, XMLError* error = nullptr);
    // Decodes into out (capacity outSize); returns false and sets error on failure.
    static bool decode(const char* text, unsigned char* out, size_t outSize, XMLError* error = nullptr);
    static std::string decode(const char* text, XMLError* error = nullptr);
};

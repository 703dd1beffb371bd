// Parsing: pugixml tokenises the text in place (no entity or end-of-line processing), then
// the element tree is built from its nodes in one pass, decoding entities on the way.
#include "xml/XMLNodeData.h"

#include <pugixml.hpp>

#include <cstdio>
#include <cstring>
#include <string>

namespace {

constexpr unsigned kParseOptions = pugi::parse_cdata | pugi::parse_comments | pugi::parse_declaration |
                                   pugi::parse_doctype | pugi::parse_trim_pcdata;

// Above this the per-thread parse buffer is given back after use instead of being kept.
constexpr size_t kKeepBufferCapacity = 256 * 1024;

inline bool isXmlSpace(char c) { return c == ' ' || c == '\t' || c == '\n' || c == '\r'; }

void setPosition(XMLResults& r, const char* text, size_t len, size_t offset) {
    if (offset > len) offset = len;
    const char* end = text + offset;
    const char* lineStart = text;
    int line = 1;
    for (const char* p = text; p < end;) {
        const void* nl = std::memchr(p, '\n', static_cast<size_t>(end - p));
        if (!nl) break;
        ++line;
        p = lineStart = static_cast<const char*>(nl) + 1;
    }
    r.nLine = line;
    r.nColumn = static_cast<int>(end - lineStart) + 1;
}

XMLError mapStatus(pugi::xml_parse_status status) {
    switch (status) {
        case pugi::status_ok: return eXMLErrorNone;
        case pugi::status_file_not_found:
        case pugi::status_io_error: return eXMLErrorFileNotFound;
        case pugi::status_unrecognized_tag:
        case pugi::status_bad_start_element: return eXMLErrorMissingTagName;
        case pugi::status_bad_end_element: return eXMLErrorMissingEndTagName;
        case pugi::status_end_element_mismatch: return eXMLErrorUnmatchedEndTag;
        case pugi::status_bad_comment:
        case pugi::status_bad_cdata:
        case pugi::status_bad_doctype: return eXMLErrorUnmatchedEndClearTag;
        case pugi::status_no_document_element: return eXMLErrorNoElements;
        default: return eXMLErrorUnexpectedToken;
    }
}

bool matchEntity(const char* p, const char* end, const char* name, size_t n) {
    return static_cast<size_t>(end - p) >= n && std::memcmp(p, name, n) == 0;
}

int hexValue(char c) {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    return -1;
}

}  // namespace

class XMLTreeBuilder {
public:
    static XMLNode parse(const char* text, size_t len, const char* tag, XMLResults* results);

private:
    XMLTreeBuilder(const char* base, const char* text) : base_(base), text_(text) {}

    XMLNodeData* build(pugi::xml_node top, bool asDocument);
    bool addContent(XMLNodeData* d, pugi::xml_node n, XMLNodeData** descend);
    bool fillAttributes(XMLNodeData* d, pugi::xml_node n);
    static void reserveContent(XMLNodeData* d, pugi::xml_node n);
    bool decode(std::string& out, const char* s);
    size_t offsetOf(const char* p) const { return static_cast<size_t>(p - base_); }

    const char* base_;  // the buffer pugixml parsed in place
    const char* text_;  // the caller's text: same offsets, not overwritten by the parse
    XMLError error_ = eXMLErrorNone;
    size_t errorAt_ = 0;
};

// Decodes the five predefined entities and numeric references of s into out.
bool XMLTreeBuilder::decode(std::string& out, const char* s) {
    const size_t n = std::strlen(s);
    const char* end = s + n;
    const char* amp = static_cast<const char*>(std::memchr(s, '&', n));
    if (!amp) {
        out.assign(s, n);
        return true;
    }
    out.clear();
    out.reserve(n);
    const char* p = s;
    while (amp) {
        out.append(p, amp);
        const char* q = amp + 1;
        XMLError err = eXMLErrorNone;
        if (q < end && *q == '#') {
            ++q;
            int base = 10;
            if (q < end && (*q == 'x' || *q == 'X')) {
                base = 16;
                ++q;
            }
            unsigned long code = 0;
            int digits = 0;
            for (; q < end; ++q, ++digits) {
                int v = base == 16 ? hexValue(*q) : ((*q >= '0' && *q <= '9') ? *q - '0' : -1);
                if (v < 0) break;
                if (code <= 0xFFFFFF) code = code * static_cast<unsigned>(base) + static_cast<unsigned>(v);
            }
            if (digits == 0 || q >= end || *q != ';')
                err = eXMLErrorUnknownCharacterEntity;
            else if (code > 255)
                err = eXMLErrorCharacterCodeAbove255;
            else {
                out.push_back(static_cast<char>(code));
                p = q + 1;
            }
        } else if (matchEntity(q, end, "amp;", 4)) {
            out.push_back('&');
            p = q + 4;
        } else if (matchEntity(q, end, "lt;", 3)) {
            out.push_back('<');
            p = q + 3;
        } else if (matchEntity(q, end, "gt;", 3)) {
            out.push_back('>');
            p = q + 3;
        } else if (matchEntity(q, end, "quot;", 5)) {
            out.push_back('"');
            p = q + 5;
        } else if (matchEntity(q, end, "apos;", 5)) {
            out.push_back('\'');
            p = q + 5;
        } else {
            err = eXMLErrorUnknownCharacterEntity;
        }
        if (err != eXMLErrorNone) {
            error_ = err;
            errorAt_ = offsetOf(amp);
            return false;
        }
        amp = static_cast<const char*>(std::memchr(p, '&', static_cast<size_t>(end - p)));
    }
    out.append(p, end);
    return true;
}

bool XMLTreeBuilder::fillAttributes(XMLNodeData* d, pugi::xml_node n) {
    pugi::xml_attribute a = n.first_attribute();
    if (!a) return true;
    size_t count = 0;
    for (pugi::xml_attribute c = a; c; c = c.next_attribute()) ++count;
    d->attributes.resize(count);
    for (XMLAttributeData& out : d->attributes) {
        out.name.assign(a.name());
        if (!decode(out.value, a.value())) return false;
        a = a.next_attribute();
    }
    return true;
}

// Sizes d's vectors once for n's children instead of growing them node by node.
void XMLTreeBuilder::reserveContent(XMLNodeData* d, pugi::xml_node n) {
    size_t items = 0, elements = 0, texts = 0;
    for (pugi::xml_node c = n.first_child(); c; c = c.next_sibling()) {
        ++items;
        if (c.type() == pugi::node_element || c.type() == pugi::node_declaration)
            ++elements;
        else if (c.type() == pugi::node_pcdata)
            ++texts;
    }
    d->order.reserve(items);
    if (elements) d->children.reserve(elements);
    if (texts) d->texts.reserve(texts);
    if (items > elements + texts) d->clears.reserve(items - elements - texts);
}

// Adds one pugixml node to d's content. A new element that has content of its own is
// returned through descend so the caller walks into it.
bool XMLTreeBuilder::addContent(XMLNodeData* d, pugi::xml_node n, XMLNodeData** descend) {
    switch (n.type()) {
        case pugi::node_element:
        case pugi::node_declaration: {
            XMLNodeData* c = d->appendNewChild(n.name(), n.type() == pugi::node_declaration);
            if (!fillAttributes(c, n)) return false;
            if (n.first_child()) {
                reserveContent(c, n);
                *descend = c;
            }
            return true;
        }
        case pugi::node_pcdata: {
            // Whitespace-only runs never get here: pugixml drops them and trims the others.
            d->order.push_back(XMLContentSlot{XMLContentKind::Text, static_cast<uint32_t>(d->texts.size())});
            d->texts.emplace_back();
            return decode(d->texts.back(), n.value());
        }
        case pugi::node_comment:
            d->appendClear("<!--", n.value(), "-->");
            return true;
        case pugi::node_cdata:
            d->appendClear("<![CDATA[", n.value(), "]]>");
            return true;
        case pugi::node_doctype: {
            // pugixml skips the blanks after the keyword; take them back from the source.
            const char* v = n.value();
            size_t off = offsetOf(v);
            size_t start = off;
            while (start > 0 && isXmlSpace(text_[start - 1])) --start;
            d->appendClear("<!DOCTYPE", std::string(text_ + start, off - start + std::strlen(v)), ">");
            return true;
        }
        default:
            return true;  // processing instructions other than the declaration are dropped
    }
}

XMLNodeData* XMLTreeBuilder::build(pugi::xml_node top, bool asDocument) {
    auto* root = new XMLNodeData;
    if (!asDocument) {
        root->name.assign(top.name());
        root->named = true;
        if (!fillAttributes(root, top)) {
            XMLNodeData::release(root);
            return nullptr;
        }
    }
    reserveContent(root, top);
    // Iterative walk over pugixml's tree: dp mirrors the parent of n.
    XMLNodeData* dp = root;
    pugi::xml_node n = top.first_child();
    while (n) {
        XMLNodeData* descend = nullptr;
        if (!addContent(dp, n, &descend)) {
            XMLNodeData::release(root);
            return nullptr;
        }
        if (descend) {
            dp = descend;
            n = n.first_child();
            continue;
        }
        while (!n.next_sibling()) {
            n = n.parent();
            if (n == top) break;
            dp = dp->parent;
        }
        n = (n == top) ? pugi::xml_node() : n.next_sibling();
    }
    return root;
}

XMLNode XMLTreeBuilder::parse(const char* text, size_t len, const char* tag, XMLResults* results) {
    XMLResults local;
    XMLResults& r = results ? *results : local;
    r = XMLResults{};
    if (!text) text = "";

    // pugixml writes terminators into the text it parses in place, so it gets a copy; the
    // buffer is kept per thread to spare an allocation on every request.
    thread_local std::string buffer;
    buffer.assign(text, len);
    struct BufferTrim {
        ~BufferTrim() {
            if (buffer.capacity() > kKeepBufferCapacity) std::string().swap(buffer);
        }
    } trim;

    pugi::xml_document doc;
    pugi::xml_parse_result res = doc.load_buffer_inplace(buffer.data(), len, kParseOptions, pugi::encoding_utf8);
    if (!res) {
        r.error = mapStatus(res.status);
        size_t at = res.offset > 0 ? static_cast<size_t>(res.offset) : 0;
        if (res.status == pugi::status_no_document_element) {
            size_t k = 0;
            while (k < len && isXmlSpace(text[k])) ++k;
            if (k == len) {
                r.error = eXMLErrorEmpty;
                at = 0;
            }
        }
        setPosition(r, text, len, at);
        return XMLNode();
    }

    pugi::xml_node top = doc;
    bool asDocument = !(tag && *tag);
    if (!asDocument) {
        top = pugi::xml_node();
        for (pugi::xml_node c = doc.first_child(); c; c = c.next_sibling()) {
            if (c.type() == pugi::node_element && xmlNameEquals(c.name(), tag)) {
                top = c;
                break;
            }
        }
        if (!top) {
            r.error = eXMLErrorFirstTagNotFound;
            setPosition(r, text, len, len);
            return XMLNode();
        }
    }

    XMLTreeBuilder builder(buffer.data(), text);
    XMLNodeData* root = builder.build(top, asDocument);
    if (!root) {
        r.error = builder.error_;
        setPosition(r, text, len, builder.errorAt_);
        return XMLNode();
    }
    if (results) setPosition(r, text, len, len);
    return XMLNode(root);
}

XMLNode XMLNode::parseString(const char* text, const char* tag, XMLResults* results) {
    return XMLTreeBuilder::parse(text, text ? std::strlen(text) : 0, tag, results);
}

XMLNode XMLNode::parseFile(const char* path, const char* tag, XMLResults* results) {
    std::FILE* f = path ? std::fopen(path, "rb") : nullptr;
    if (!f) {
        if (results) *results = XMLResults{eXMLErrorFileNotFound, 0, 0};
        return XMLNode();
    }
    std::string content;
    char chunk[16384];
    size_t got;
    while ((got = std::fread(chunk, 1, sizeof chunk, f)) > 0) content.append(chunk, got);
    bool failed = std::ferror(f) != 0;
    std::fclose(f);
    if (failed) {
        if (results) *results = XMLResults{eXMLErrorFileNotFound, 0, 0};
        return XMLNode();
    }
    return XMLTreeBuilder::parse(content.c_str(), content.size(), tag, results);
}

const char* XMLNode::getError(XMLError error) {
    switch (error) {
        case eXMLErrorNone: return "No error";
        case eXMLErrorMissingEndTag: return "Warning: Unmatched end tag";
        case eXMLErrorNoXMLTagFound: return "Warning: No XML tag found";
        case eXMLErrorEmpty: return "Error: No XML data";
        case eXMLErrorMissingTagName: return "Error: Missing start tag name";
        case eXMLErrorMissingEndTagName: return "Error: Missing end tag name";
        case eXMLErrorUnmatchedEndTag: return "Error: Unmatched end tag";
        case eXMLErrorUnmatchedEndClearTag: return "Error: Unmatched clear tag end";
        case eXMLErrorUnexpectedToken: return "Error: Unexpected token found";
        case eXMLErrorNoElements: return "Error: No elements found";
        case eXMLErrorFileNotFound: return "Error: File not found";
        case eXMLErrorFirstTagNotFound: return "Error: First Tag not found";
        case eXMLErrorUnknownCharacterEntity: return "Error: Unknown character entity";
        case eXMLErrorCharacterCodeAbove255:
            return "Error: Character code above 255 is forbidden in MultiByte char mode.";
        case eXMLErrorCharConversionError: return "Error: unable to convert between WideChar and MultiByte chars";
        case eXMLErrorCannotOpenWriteFile: return "Error: unable to open file for writing";
        case eXMLErrorCannotWriteFile: return "Error: cannot write into file";
        case eXMLErrorBase64DataSizeIsNotMultipleOf4: return "Warning: Base64-string length is not a multiple of 4";
        case eXMLErrorBase64DecodeIllegalCharacter: return "Error: Base64-string contains an illegal character";
        case eXMLErrorBase64DecodeTruncatedData: return "Warning: Base64-string is truncated";
        case eXMLErrorBase64DecodeBufferTooSmall: return "Error: Base64 decode output buffer is too small";
    }
    return "Unknown";
}

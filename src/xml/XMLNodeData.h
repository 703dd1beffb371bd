// Private element record behind XMLNode handles; shared by the tree, parser and printer
// sources of this directory only.
#pragma once

#include "xml/XMLNode.h"

#include <atomic>
#include <cstdint>
#include <string>
#include <vector>

struct XMLAttributeData {
    std::string name;
    std::string value;
    bool hasValue = true;  // false for an attribute added without value; printed as a bare name
};

// Comment, CDATA, DOCTYPE...: printed back verbatim as open + text + close.
struct XMLClearData {
    std::string open;
    std::string text;
    std::string close;
};

enum class XMLContentKind : uint8_t { Child, Text, Clear, Writer };

// One entry of the element's content order; index points into the vector of that kind.
struct XMLContentSlot {
    XMLContentKind kind;
    uint32_t index;
};

struct XMLNodeData {
    // One reference per handle plus one held by the parent's children list.
    std::atomic<int> refs{1};
    // Non-owning: cleared when the parent goes or the element is detached. While the record
    // is being destroyed it doubles as the link of the pending-destruction list.
    XMLNodeData* parent = nullptr;
    std::string name;
    bool named = false;  // the document node of a parse without tag has no name
    bool declaration = false;
    std::vector<XMLNodeData*> children;  // each holds one reference
    std::vector<std::string> texts;
    std::vector<XMLAttributeData> attributes;
    std::vector<XMLClearData> clears;
    std::vector<XMLNode::ContentWriter> writers;
    std::vector<XMLContentSlot> order;

    static void retain(XMLNodeData* d) noexcept { d->refs.fetch_add(1, std::memory_order_relaxed); }
    static void release(XMLNodeData* d) noexcept;

    // Reserves a slot of the given kind at content position pos (-1 or past the end appends)
    // and returns the index the new item must take in its kind's vector.
    uint32_t insertSlot(XMLContentKind kind, int pos);
    // Removes the slot of item index of the given kind and renumbers the later ones.
    void removeSlot(XMLContentKind kind, uint32_t index);

    // Appends a new child element (reference owned by this record) and returns it.
    XMLNodeData* appendNewChild(std::string childName, bool isDeclaration, int pos = -1);
    void appendText(std::string text, int pos = -1);
    void appendClear(std::string open, std::string text, std::string close, int pos = -1);

    // Drops the parent's reference and slot; the caller must hold its own reference.
    void detachFromParent() noexcept;

    XMLNode handle() {  // a new handle sharing this record
        retain(this);
        return XMLNode(this);
    }
};

// ASCII case-insensitive equality used for all element and attribute name lookups.
bool xmlNameEquals(const std::string& a, const char* b) noexcept;
bool xmlNameEquals(const char* a, const char* b) noexcept;

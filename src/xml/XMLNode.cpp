// XMLNode handles: reference counting, navigation and editing of the element tree.
#include "xml/XMLNodeData.h"

#include <cstdlib>
#include <cstring>
#include <utility>

namespace {

inline unsigned char lowerAscii(unsigned char c) noexcept {
    return (c >= 'A' && c <= 'Z') ? static_cast<unsigned char>(c + ('a' - 'A')) : c;
}

std::string fromOwned(char* s) {  // adopts a malloc'd string of the _WOSD variants
    if (!s) return {};
    std::string out(s);
    std::free(s);
    return out;
}

}  // namespace

bool xmlNameEquals(const char* a, const char* b) noexcept {
    if (!a || !b) return false;
    for (;; ++a, ++b) {
        unsigned char ca = lowerAscii(static_cast<unsigned char>(*a));
        if (ca != lowerAscii(static_cast<unsigned char>(*b))) return false;
        if (ca == 0) return true;
    }
}

bool xmlNameEquals(const std::string& a, const char* b) noexcept {
    if (!b) return false;
    const size_t n = a.size();
    for (size_t i = 0; i < n; ++i) {
        if (b[i] == 0) return false;
        if (lowerAscii(static_cast<unsigned char>(a[i])) != lowerAscii(static_cast<unsigned char>(b[i])))
            return false;
    }
    return b[n] == 0;
}

// ---- XMLNodeData ---------------------------------------------------------------------------

void XMLNodeData::release(XMLNodeData* d) noexcept {
    if (d->refs.fetch_sub(1, std::memory_order_acq_rel) != 1) return;
    // Iterative teardown so that deep documents cannot exhaust the stack; dying records are
    // chained through their (no longer needed) parent pointer.
    d->parent = nullptr;
    XMLNodeData* pending = d;
    while (pending) {
        XMLNodeData* n = pending;
        pending = n->parent;
        for (XMLNodeData* c : n->children) {
            if (c->refs.fetch_sub(1, std::memory_order_acq_rel) == 1) {
                c->parent = pending;
                pending = c;
            } else {
                c->parent = nullptr;  // still held by a handle: it becomes a detached element
            }
        }
        delete n;
    }
}

uint32_t XMLNodeData::insertSlot(XMLContentKind kind, int pos) {
    size_t at = (pos < 0 || static_cast<size_t>(pos) >= order.size()) ? order.size() : static_cast<size_t>(pos);
    if (at == order.size()) {
        // Appending, the common case (parsing, building answers): no scan, so a document with
        // many children is built in linear time.
        size_t count = kind == XMLContentKind::Child  ? children.size()
                       : kind == XMLContentKind::Text ? texts.size()
                       : kind == XMLContentKind::Clear ? clears.size()
                                                       : writers.size();
        order.push_back(XMLContentSlot{kind, static_cast<uint32_t>(count)});
        return static_cast<uint32_t>(count);
    }
    uint32_t index = 0;
    for (size_t k = 0; k < at; ++k)
        if (order[k].kind == kind) ++index;
    for (size_t k = at; k < order.size(); ++k)
        if (order[k].kind == kind) ++order[k].index;
    order.insert(order.begin() + static_cast<std::ptrdiff_t>(at), XMLContentSlot{kind, index});
    return index;
}

void XMLNodeData::removeSlot(XMLContentKind kind, uint32_t index) {
    size_t found = order.size();
    for (size_t k = 0; k < order.size(); ++k) {
        if (order[k].kind != kind) continue;
        if (order[k].index == index)
            found = k;
        else if (order[k].index > index)
            --order[k].index;
    }
    if (found < order.size()) order.erase(order.begin() + static_cast<std::ptrdiff_t>(found));
}

XMLNodeData* XMLNodeData::appendNewChild(std::string childName, bool isDeclaration, int pos) {
    auto* c = new XMLNodeData;
    c->name = std::move(childName);
    c->named = true;
    c->declaration = isDeclaration;
    c->parent = this;
    uint32_t index = insertSlot(XMLContentKind::Child, pos);
    children.insert(children.begin() + index, c);
    return c;
}

void XMLNodeData::appendText(std::string text, int pos) {
    uint32_t index = insertSlot(XMLContentKind::Text, pos);
    texts.insert(texts.begin() + index, std::move(text));
}

void XMLNodeData::appendClear(std::string open, std::string text, std::string close, int pos) {
    uint32_t index = insertSlot(XMLContentKind::Clear, pos);
    clears.insert(clears.begin() + index, XMLClearData{std::move(open), std::move(text), std::move(close)});
}

void XMLNodeData::detachFromParent() noexcept {
    XMLNodeData* p = parent;
    if (!p) return;
    for (size_t i = 0; i < p->children.size(); ++i) {
        if (p->children[i] != this) continue;
        p->children.erase(p->children.begin() + static_cast<std::ptrdiff_t>(i));
        p->removeSlot(XMLContentKind::Child, static_cast<uint32_t>(i));
        break;
    }
    parent = nullptr;
    release(this);  // the parent's reference; the caller still holds one
}

// ---- handle lifetime -------------------------------------------------------------------------

XMLNode::XMLNode(XMLNodeData* d) : d_(d) {}

XMLNode::XMLNode(const XMLNode& other) : d_(other.d_) {
    if (d_) XMLNodeData::retain(d_);
}

XMLNode::XMLNode(XMLNode&& other) noexcept : d_(std::exchange(other.d_, nullptr)) {}

XMLNode& XMLNode::operator=(const XMLNode& other) {
    if (other.d_) XMLNodeData::retain(other.d_);  // first, in case of self-assignment
    if (d_) XMLNodeData::release(d_);
    d_ = other.d_;
    return *this;
}

XMLNode& XMLNode::operator=(XMLNode&& other) noexcept {
    if (this != &other) {
        if (d_) XMLNodeData::release(d_);
        d_ = std::exchange(other.d_, nullptr);
    }
    return *this;
}

XMLNode::~XMLNode() {
    if (d_) XMLNodeData::release(d_);
}

XMLNode XMLNode::createXMLTopNode(const char* name, bool isDeclaration) {
    auto* d = new XMLNodeData;
    if (name) {
        d->name = name;
        d->named = true;
    }
    d->declaration = isDeclaration;
    return XMLNode(d);
}

bool XMLNode::isDeclaration() const { return d_ && d_->declaration; }

XMLNode XMLNode::deepCopy() const {
    if (!d_) return XMLNode();
    auto copyShallow = [](const XMLNodeData* s, XMLNodeData* t) {
        t->name = s->name;
        t->named = s->named;
        t->declaration = s->declaration;
        t->texts = s->texts;
        t->attributes = s->attributes;
        t->clears = s->clears;
        t->writers = s->writers;
        t->order = s->order;
        t->children.reserve(s->children.size());
    };
    auto* top = new XMLNodeData;
    copyShallow(d_, top);
    // Explicit work list instead of recursion: each entry's children are created in order.
    std::vector<std::pair<const XMLNodeData*, XMLNodeData*>> work{{d_, top}};
    while (!work.empty()) {
        auto [src, dst] = work.back();
        work.pop_back();
        for (const XMLNodeData* sc : src->children) {
            auto* dc = new XMLNodeData;
            copyShallow(sc, dc);
            dc->parent = dst;
            dst->children.push_back(dc);
            if (!sc->children.empty()) work.emplace_back(sc, dc);
        }
    }
    return XMLNode(top);
}

// ---- navigation ------------------------------------------------------------------------------

const char* XMLNode::getName() const { return (d_ && d_->named) ? d_->name.c_str() : nullptr; }

XMLNode XMLNode::getParentNode() const {
    if (!d_ || !d_->parent) return XMLNode();
    return d_->parent->handle();
}

int XMLNode::nChildNode() const { return d_ ? static_cast<int>(d_->children.size()) : 0; }

int XMLNode::nChildNode(const char* name) const {
    if (!d_ || !name) return 0;
    int n = 0;
    for (const XMLNodeData* c : d_->children)
        if (xmlNameEquals(c->name, name)) ++n;
    return n;
}

XMLNode XMLNode::getChildNode(int i) const {
    if (!d_ || i < 0 || static_cast<size_t>(i) >= d_->children.size()) return XMLNode();
    return d_->children[static_cast<size_t>(i)]->handle();
}

XMLNode XMLNode::getChildNode(const char* name, int i) const {
    if (!d_ || !name || i < 0) return XMLNode();
    for (XMLNodeData* c : d_->children)
        if (xmlNameEquals(c->name, name) && i-- == 0) return c->handle();
    return XMLNode();
}

XMLNode XMLNode::getChildNode(const char* name, int* i) const {
    if (!d_ || !name) return XMLNode();
    size_t k = (i && *i > 0) ? static_cast<size_t>(*i) : 0;
    for (; k < d_->children.size(); ++k) {
        XMLNodeData* c = d_->children[k];
        if (!xmlNameEquals(c->name, name)) continue;
        if (i) *i = static_cast<int>(k + 1);
        return c->handle();
    }
    return XMLNode();
}

XMLNode XMLNode::getChildNodeWithAttribute(const char* name, const char* attributeName,
                                           const char* attributeValue, int* i) const {
    if (!d_ || !name || !attributeName) return XMLNode();
    size_t k = (i && *i > 0) ? static_cast<size_t>(*i) : 0;
    for (; k < d_->children.size(); ++k) {
        XMLNodeData* c = d_->children[k];
        if (!xmlNameEquals(c->name, name)) continue;
        for (const XMLAttributeData& a : c->attributes) {
            if (!xmlNameEquals(a.name, attributeName)) continue;
            if (attributeValue && (!a.hasValue || a.value != attributeValue)) continue;
            if (i) *i = static_cast<int>(k + 1);
            return c->handle();
        }
    }
    return XMLNode();
}

XMLNode XMLNode::getChildNodeByPath(const char* path, char separator) const {
    if (!d_ || !path) return XMLNode();
    XMLNodeData* cur = d_;
    const char* p = path;
    std::string part;
    while (*p) {
        if (*p == separator) {
            ++p;  // tolerate leading, doubled and trailing separators
            continue;
        }
        const char* end = std::strchr(p, separator);
        if (!end) end = p + std::strlen(p);
        part.assign(p, end);
        p = end;
        XMLNodeData* next = nullptr;
        for (XMLNodeData* c : cur->children) {
            if (xmlNameEquals(c->name, part.c_str())) {
                next = c;
                break;
            }
        }
        if (!next) return XMLNode();
        cur = next;
    }
    return cur->handle();
}

int XMLNode::nText() const { return d_ ? static_cast<int>(d_->texts.size()) : 0; }

const char* XMLNode::getText(int i) const {
    if (!d_ || i < 0 || static_cast<size_t>(i) >= d_->texts.size()) return nullptr;
    return d_->texts[static_cast<size_t>(i)].c_str();
}

int XMLNode::nClear() const { return d_ ? static_cast<int>(d_->clears.size()) : 0; }

const char* XMLNode::getClear(int i) const {
    if (!d_ || i < 0 || static_cast<size_t>(i) >= d_->clears.size()) return nullptr;
    return d_->clears[static_cast<size_t>(i)].text.c_str();
}

int XMLNode::nAttribute() const { return d_ ? static_cast<int>(d_->attributes.size()) : 0; }

const char* XMLNode::getAttribute(const char* name, int* i) const {
    if (!d_ || !name) return nullptr;
    size_t k = (i && *i > 0) ? static_cast<size_t>(*i) : 0;
    for (; k < d_->attributes.size(); ++k) {
        const XMLAttributeData& a = d_->attributes[k];
        if (!xmlNameEquals(a.name, name)) continue;
        if (i) *i = static_cast<int>(k + 1);
        return a.hasValue ? a.value.c_str() : nullptr;
    }
    return nullptr;
}

bool XMLNode::isAttributeSet(const char* name) const {
    if (!d_ || !name) return false;
    for (const XMLAttributeData& a : d_->attributes)
        if (xmlNameEquals(a.name, name)) return true;
    return false;
}

const char* XMLNode::getAttributeName(int i) const {
    if (!d_ || i < 0 || static_cast<size_t>(i) >= d_->attributes.size()) return nullptr;
    return d_->attributes[static_cast<size_t>(i)].name.c_str();
}

const char* XMLNode::getAttributeValue(int i) const {
    if (!d_ || i < 0 || static_cast<size_t>(i) >= d_->attributes.size()) return nullptr;
    const XMLAttributeData& a = d_->attributes[static_cast<size_t>(i)];
    return a.hasValue ? a.value.c_str() : nullptr;
}

// ---- editing ---------------------------------------------------------------------------------

XMLNode XMLNode::addChild(const char* name, bool isDeclaration, int pos) {
    if (!d_ || !name) return XMLNode();
    return d_->appendNewChild(name, isDeclaration, pos)->handle();
}

XMLNode XMLNode::addChild(XMLNode child, int pos) {
    if (!d_ || !child.d_) return XMLNode();
    // Refuse to create a cycle: the child must not be this element or one of its ancestors.
    for (XMLNodeData* a = d_; a; a = a->parent)
        if (a == child.d_) return XMLNode();
    XMLNodeData* c = child.d_;
    XMLNodeData::retain(c);  // the reference the new parent will hold
    c->detachFromParent();
    uint32_t index = d_->insertSlot(XMLContentKind::Child, pos);
    d_->children.insert(d_->children.begin() + index, c);
    c->parent = d_;
    return child;
}

void XMLNode::addText(const char* text, int pos) {
    if (d_ && text) d_->appendText(text, pos);
}

void XMLNode::addContentWriter(ContentWriter writer) {
    if (!d_ || !writer) return;
    const uint32_t index = d_->insertSlot(XMLContentKind::Writer, -1);
    d_->writers.insert(d_->writers.begin() + index, std::move(writer));
}

void XMLNode::addAttribute(const char* name, const char* value) {
    if (!d_ || !name) return;
    d_->attributes.push_back(XMLAttributeData{name, value ? value : "", value != nullptr});
}

void XMLNode::addClear(const char* text, const char* open, const char* close, int pos) {
    if (!d_ || !text) return;
    d_->appendClear(open ? open : "", text, close ? close : "", pos);
}

XMLNode XMLNode::addChild_WOSD(char* name, bool isDeclaration, int pos) {
    if (!d_ || !name) {
        std::free(name);
        return XMLNode();
    }
    return d_->appendNewChild(fromOwned(name), isDeclaration, pos)->handle();
}

void XMLNode::addText_WOSD(char* text, int pos) {
    if (!d_ || !text) {
        std::free(text);
        return;
    }
    d_->appendText(fromOwned(text), pos);
}

void XMLNode::addAttribute_WOSD(char* name, char* value) {
    if (!d_ || !name) {
        std::free(name);
        std::free(value);
        return;
    }
    bool hasValue = value != nullptr;
    d_->attributes.push_back(XMLAttributeData{fromOwned(name), fromOwned(value), hasValue});
}

void XMLNode::updateName(const char* name) {
    if (!d_) return;
    d_->named = name != nullptr;
    d_->name = name ? name : "";
}

void XMLNode::updateText(const char* text, int i) {
    if (!d_ || !text) return;
    if (i >= 0 && static_cast<size_t>(i) < d_->texts.size())
        d_->texts[static_cast<size_t>(i)] = text;
    else
        d_->appendText(text);
}

void XMLNode::updateAttribute(const char* value, const char* name) {
    if (!d_ || !name) return;
    for (XMLAttributeData& a : d_->attributes) {
        if (!xmlNameEquals(a.name, name)) continue;
        a.value = value ? value : "";
        a.hasValue = value != nullptr;
        return;
    }
    addAttribute(name, value);
}

void XMLNode::deleteText(int i) {
    if (!d_ || i < 0 || static_cast<size_t>(i) >= d_->texts.size()) return;
    d_->texts.erase(d_->texts.begin() + i);
    d_->removeSlot(XMLContentKind::Text, static_cast<uint32_t>(i));
}

void XMLNode::deleteAttribute(const char* name) {
    if (!d_ || !name) return;
    for (size_t k = 0; k < d_->attributes.size(); ++k) {
        if (xmlNameEquals(d_->attributes[k].name, name)) {
            d_->attributes.erase(d_->attributes.begin() + static_cast<std::ptrdiff_t>(k));
            return;
        }
    }
}

void XMLNode::deleteAttribute(int i) {
    if (!d_ || i < 0 || static_cast<size_t>(i) >= d_->attributes.size()) return;
    d_->attributes.erase(d_->attributes.begin() + i);
}

void XMLNode::deleteClear(int i) {
    if (!d_ || i < 0 || static_cast<size_t>(i) >= d_->clears.size()) return;
    d_->clears.erase(d_->clears.begin() + i);
    d_->removeSlot(XMLContentKind::Clear, static_cast<uint32_t>(i));
}

void XMLNode::deleteNodeContent() {
    if (!d_) return;
    d_->detachFromParent();
    XMLNodeData::release(d_);  // other handles, if any, keep the detached subtree alive
    d_ = nullptr;
}

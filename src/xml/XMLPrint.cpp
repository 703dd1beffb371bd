// Printing of element trees and the output escaping helper.
#include "xml/Utf8.h"
#include "xml/XMLNodeData.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

namespace {

// Above this the per-thread print buffers are given back after use instead of being kept.
constexpr size_t kKeepScratchCapacity = 256 * 1024;

class Printer {
public:
    Printer(std::string& out, bool formatted) : out_(out), formatted_(formatted) {}

    void print(const XMLNodeData* top, int topDepth) {
        // Explicit stack (kept per thread) rather than recursion: deep documents must not
        // exhaust a worker thread's stack, and warm printing allocates nothing. A content
        // writer that prints a tree of its own gets a stack of its own.
        thread_local std::vector<Frame> threadStack;
        thread_local int nesting = 0;
        std::vector<Frame> ownStack;
        std::vector<Frame>& stack = nesting == 0 ? threadStack : ownStack;
        struct nestingScope_s {
            nestingScope_s() { ++nesting; }
            ~nestingScope_s() { --nesting; }
        } scope;
        stack.clear();
        enter(top, topDepth, stack);
        while (!stack.empty()) {
            Frame& f = stack.back();
            if (f.next == f.d->order.size()) {
                if (f.close) {
                    indent(f.depth - 1);
                    closeTag(f.d);
                    newline();
                }
                stack.pop_back();
                continue;
            }
            const XMLContentSlot slot = f.d->order[f.next++];
            const XMLNodeData* d = f.d;
            const int depth = f.depth;
            switch (slot.kind) {
                case XMLContentKind::Child:
                    enter(d->children[slot.index], depth, stack);  // may invalidate f
                    break;
                case XMLContentKind::Text:
                    indent(depth);
                    ToXMLStringTool::appendEscaped(out_, d->texts[slot.index].data(), d->texts[slot.index].size());
                    newline();
                    break;
                case XMLContentKind::Clear:
                    indent(depth);
                    clear(d->clears[slot.index]);
                    newline();
                    break;
                case XMLContentKind::Writer:
                    d->writers[slot.index](out_, depth, formatted_);
                    break;
            }
        }
        if (stack.capacity() > 4096) std::vector<Frame>().swap(stack);
    }

private:
    struct Frame {
        const XMLNodeData* d;
        size_t next;  // next content slot to print
        int depth;    // indentation of the content
        bool close;   // print the closing tag one level up when done
    };

    void enter(const XMLNodeData* d, int depth, std::vector<Frame>& stack) {
        if (!d->named || d->declaration) {
            // An unnamed document node is transparent; a declaration is a single tag, and
            // anything attached to it is printed after it at the same level.
            if (d->named) {
                indent(depth);
                out_ += "<?";
                out_ += d->name;
                attributes(d);
                out_ += "?>";
                newline();
            }
            if (!d->order.empty()) stack.push_back(Frame{d, 0, depth, false});
            return;
        }
        indent(depth);
        out_ += '<';
        out_ += d->name;
        attributes(d);
        if (d->order.empty()) {
            out_ += "/>";
            newline();
            return;
        }
        out_ += '>';
        if (d->children.empty() && d->writers.empty()) {  // texts and clears only: one line
            for (const XMLContentSlot& slot : d->order) {
                if (slot.kind == XMLContentKind::Text) {
                    const std::string& t = d->texts[slot.index];
                    ToXMLStringTool::appendEscaped(out_, t.data(), t.size());
                } else {
                    clear(d->clears[slot.index]);
                }
            }
            closeTag(d);
            newline();
            return;
        }
        newline();
        stack.push_back(Frame{d, 0, depth + 1, true});
    }

    void attributes(const XMLNodeData* d) {
        for (const XMLAttributeData& a : d->attributes) {
            out_ += ' ';
            out_ += a.name;
            if (!a.hasValue) continue;
            out_ += "=\"";
            ToXMLStringTool::appendEscaped(out_, a.value.data(), a.value.size());
            out_ += '"';
        }
    }

    void closeTag(const XMLNodeData* d) {
        out_ += "</";
        out_ += d->name;
        out_ += '>';
    }

    void clear(const XMLClearData& c) {
        out_ += c.open;
        out_ += c.text;
        out_ += c.close;
    }

    void indent(int depth) {
        if (formatted_ && depth > 0) out_.append(static_cast<size_t>(depth), '\t');
    }

    void newline() {
        if (formatted_) out_ += '\n';
    }

    std::string& out_;
    bool formatted_;
};

// Prints into a per-thread buffer whose capacity survives between calls.
std::string& printScratch(const XMLNodeData* d, int nFormat) {
    thread_local std::string scratch;
    scratch.clear();
    if (scratch.capacity() < 2048) scratch.reserve(2048);
    if (d) Printer(scratch, nFormat > 0).print(d, 0);
    return scratch;
}

void trimScratch(std::string& scratch) {
    if (scratch.capacity() > kKeepScratchCapacity) std::string().swap(scratch);
}

}  // namespace

void XMLNode::appendTo(std::string& out, int nFormat, int depth) const {
    if (!d_) return;
    // Small answers then fit without a series of doublings; growth stays geometric.
    if (out.capacity() - out.size() < 1024) out.reserve(std::max(out.size() + 1024, out.capacity() * 2));
    Printer(out, nFormat > 0).print(d_, depth);
}

std::string XMLNode::toString(int nFormat) const {
    std::string& scratch = printScratch(d_, nFormat);
    std::string result(scratch);  // exact-size copy
    trimScratch(scratch);
    return result;
}

char* XMLNode::createXMLString(int nFormat, int* length) const {
    std::string& scratch = printScratch(d_, nFormat);
    auto* result = static_cast<char*>(std::malloc(scratch.size() + 1));
    if (result) {
        std::memcpy(result, scratch.data(), scratch.size());
        result[scratch.size()] = '\0';
    }
    if (length) *length = result ? static_cast<int>(scratch.size()) : 0;
    trimScratch(scratch);
    return result;
}

void XMLNode::freeXMLString(char* text) { std::free(text); }

XMLError XMLNode::writeToFile(const char* path, const char* encoding, int nFormat) const {
    if (!path) return eXMLErrorCannotOpenWriteFile;
    bool hasDeclaration = d_ && d_->declaration;
    if (d_ && !hasDeclaration) {
        for (const XMLNodeData* c : d_->children) {
            if (c->declaration) {
                hasDeclaration = true;
                break;
            }
        }
    }
    std::string text;
    if (!hasDeclaration) {
        text += "<?xml version=\"1.0\" encoding=\"";
        text += encoding ? encoding : "utf-8";
        text += "\"?>\n";
    }
    appendTo(text, nFormat);

    std::FILE* f = std::fopen(path, "wb");
    if (!f) return eXMLErrorCannotOpenWriteFile;
    bool ok = std::fwrite(text.data(), 1, text.size(), f) == text.size();
    ok = (std::fclose(f) == 0) && ok;
    return ok ? eXMLErrorNone : eXMLErrorCannotWriteFile;
}

// ---- ToXMLStringTool -------------------------------------------------------------------------

void ToXMLStringTool::appendEscaped(std::string& out, const char* source, size_t length) {
    if (!source) return;
    // Text that is not well-formed UTF-8 XML (a title stored by an older daemon) is printed with
    // the bad bytes replaced, never raw: a strict client would reject the whole answer.
    std::string sanitized;
    if (!utf8::isXmlText(std::string_view(source, length))) {
        utf8::appendSanitized(sanitized, std::string_view(source, length));
        source = sanitized.data();
        length = sanitized.size();
    }
    const char* run = source;
    const char* end = source + length;
    for (const char* p = source; p < end; ++p) {
        const char* entity;
        size_t n;
        switch (*p) {
            case '&': entity = "&amp;", n = 5; break;
            case '<': entity = "&lt;", n = 4; break;
            case '>': entity = "&gt;", n = 4; break;
            case '"': entity = "&quot;", n = 6; break;
            case '\'': entity = "&apos;", n = 6; break;
            default: continue;
        }
        out.append(run, p);
        out.append(entity, n);
        run = p + 1;
    }
    out.append(run, end);
}

std::string ToXMLStringTool::toXML(const char* source) {
    std::string out;
    if (!source) return out;
    size_t n = std::strlen(source);
    out.reserve(n + n / 8);
    appendEscaped(out, source, n);
    return out;
}

#include "util/PathUtil.h"

#include <sys/stat.h>

#include <climits>
#include <cstdlib>
#include <cstring>

namespace {

bool needsBackslash(unsigned char c) {
    return c == ' ' || (c != '\0' && std::strchr("!\"$&'(),;=[]^`{}", c) != nullptr);
}

// Length of the UTF-8 sequence a lead byte starts (1 for ASCII and stray continuation bytes).
size_t sequenceLength(unsigned char c) {
    if (c >= 0xFC) return 6;
    if (c >= 0xF8) return 5;
    if (c >= 0xF0) return 4;
    if (c >= 0xE0) return 3;
    if (c >= 0xC0) return 2;
    return 1;
}

bool resolve(const char* path, std::string& out) {
    char buf[PATH_MAX];
    if (::realpath(path, buf) == nullptr) return false;
    out = buf;
    return true;
}

}  // namespace

int convert_utf8_linux_filepath(const char* in, char* out, size_t size) {
    if (in == nullptr || out == nullptr || size == 0) return -1;
    out[0] = '\0';
    if (std::strlen(in) >= size) return -1;

    size_t o = 0;
    for (const unsigned char* p = reinterpret_cast<const unsigned char*>(in); *p;) {
        size_t n = sequenceLength(*p);
        if (n == 1 && needsBackslash(*p)) {
            if (o + 2 >= size) {
                out[0] = '\0';
                return -1;
            }
            out[o++] = '\\';
            out[o++] = static_cast<char>(*p++);
            continue;
        }
        // A sequence cut short by the end of the text is copied as far as it goes.
        for (size_t i = 0; i < n && *p; ++i) {
            if (o + 1 >= size) {
                out[0] = '\0';
                return -1;
            }
            out[o++] = static_cast<char>(*p++);
        }
    }
    out[o] = '\0';
    return 0;
}

int convert_utf8_linux_filepath_2(const char* in, char* out, size_t size) {
    return convert_utf8_linux_filepath(in, out, size);
}

int get_real_path(const char* path, std::string& out) {
    if (path == nullptr || *path == '\0') return -1;
    struct stat st;
    if (::stat(path, &st) == 0 && S_ISREG(st.st_mode)) {
        std::string_view p(path);
        while (p.size() > 1 && p.back() == '/') p.remove_suffix(1);
        size_t slash = p.rfind('/');
        std::string dir = slash == std::string_view::npos ? "." : std::string(slash == 0 ? "/" : p.substr(0, slash));
        std::string name(slash == std::string_view::npos ? p : p.substr(slash + 1));
        std::string resolved;
        if (!resolve(dir.c_str(), resolved)) return -1;
        if (resolved.back() != '/') resolved += '/';
        out = resolved + name;
        return 0;
    }
    std::string resolved;
    if (!resolve(path, resolved)) return -1;
    out = std::move(resolved);
    return 0;
}

int get_base_path(const char* path, std::string& out) {
    if (path == nullptr || *path == '\0') return -1;
    std::string resolved;
    if (!resolve(path, resolved)) return -1;
    size_t slash = resolved.rfind('/');
    out = resolved.substr(0, slash == 0 ? 1 : slash);
    return 0;
}

bool is_file_exist(const char* path) {
    struct stat st;
    return path != nullptr && ::stat(path, &st) == 0;
}

std::string_view Go_Next_Line(std::string_view& cursor) {
    size_t nl = cursor.find('\n');
    std::string_view line = cursor.substr(0, nl);
    cursor.remove_prefix(nl == std::string_view::npos ? cursor.size() : nl + 1);
    if (!line.empty() && line.back() == '\r') line.remove_suffix(1);
    return line;
}

std::string_view Get_Next_Word(std::string_view& cursor) {
    constexpr std::string_view kSpace = " \t\r\n\f\v";
    size_t begin = cursor.find_first_not_of(kSpace);
    if (begin == std::string_view::npos) {
        cursor.remove_prefix(cursor.size());
        return {};
    }
    size_t end = cursor.find_first_of(kSpace, begin);
    if (end == std::string_view::npos) end = cursor.size();
    std::string_view word = cursor.substr(begin, end - begin);
    cursor.remove_prefix(end);
    return word;
}

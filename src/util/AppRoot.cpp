#include "util/AppRoot.h"

namespace approot {
namespace {
std::string g_root;
}

void set(std::string root) {
    while (root.size() > 1 && root.back() == '/') root.pop_back();
    if (root == "/") root.clear();
    g_root = std::move(root);
}

const std::string& get() { return g_root; }

std::string path(std::string_view absolute) {
    std::string out;
    out.reserve(g_root.size() + absolute.size());
    out += g_root;
    out += absolute;
    return out;
}

}  // namespace approot

#include "util/NetUtil.h"

#include <arpa/inet.h>
#include <ifaddrs.h>
#include <netinet/in.h>

#include <memory>

int get_if_by_ip(const char* ip, std::string& ifName) {
    in_addr want{};
    if (ip == nullptr || ::inet_pton(AF_INET, ip, &want) != 1) return 1;

    ifaddrs* list = nullptr;
    if (::getifaddrs(&list) != 0) return 1;
    std::unique_ptr<ifaddrs, void (*)(ifaddrs*)> guard(list, ::freeifaddrs);

    for (ifaddrs* i = list; i != nullptr; i = i->ifa_next) {
        if (i->ifa_addr == nullptr || i->ifa_netmask == nullptr || i->ifa_addr->sa_family != AF_INET) continue;
        const auto* addr = reinterpret_cast<const sockaddr_in*>(i->ifa_addr);
        const auto* mask = reinterpret_cast<const sockaddr_in*>(i->ifa_netmask);
        if (((addr->sin_addr.s_addr ^ want.s_addr) & mask->sin_addr.s_addr) == 0) {
            ifName = i->ifa_name;
            return 0;
        }
    }
    return 1;
}

/* Hears from the kernel that the network changed: an interface, an address or a route came or went.
   link-stream.cpp starts it; nothing else calls it. */
#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <net/if.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <cerrno>

#include "link-parts.h"
#include "network.h"

namespace {

/* What one message says: 0 nothing that matters, 1 something came, 2 something went. Wireless interfaces and routers
   repeat themselves: only an interface that changed between up and down counts. */
int meaning(phone_link *link, const nlmsghdr *h) {
  switch (h->nlmsg_type) {
    case RTM_NEWADDR:
    case RTM_NEWROUTE:
      return 1;
    case RTM_DELADDR:
    case RTM_DELROUTE:
      return 2;
    case RTM_NEWLINK:
    case RTM_DELLINK: {
      if (h->nlmsg_len < NLMSG_LENGTH(sizeof(ifinfomsg))) return 0;
      const auto *info = static_cast<const ifinfomsg *>(NLMSG_DATA(h));
      constexpr unsigned running = IFF_UP | IFF_RUNNING;
      bool up = h->nlmsg_type == RTM_NEWLINK && (info->ifi_flags & running) == running;
      auto known = link->interfaces.find(info->ifi_index);
      if (known != link->interfaces.end() && known->second == up) return 0;
      if (h->nlmsg_type == RTM_DELLINK)
        link->interfaces.erase(info->ifi_index);
      else
        link->interfaces[info->ifi_index] = up;
      return up ? 1 : 2;
    }
    default:
      return 0;
  }
}

int changed_cb(sd_event_source *source, int fd, uint32_t revents, void *user_data) {
  auto *link = static_cast<phone_link *>(user_data);
  alignas(nlmsghdr) std::array<char, 16384> text;
  bool came = false, went = false;
  for (;;) {
    ssize_t size = recv(fd, text.data(), text.size(), MSG_DONTWAIT);
    if (size < 0 && errno == EINTR) continue;
    if (size < 0 && errno == ENOBUFS) { /* more than the socket holds: whatever it was */
      went = true;
      continue;
    }
    if (size <= 0) break;
    auto length = static_cast<unsigned>(size);
    for (auto *h = reinterpret_cast<const nlmsghdr *>(text.data()); NLMSG_OK(h, length); h = NLMSG_NEXT(h, length)) {
      int what = meaning(link, h);
      came = came || what == 1;
      went = went || what == 2;
    }
  }
  if (came || went) stream_network_changed(link, went);
  return 0;
}

}  // namespace

void network_follow(phone_link *link) {
  int fd = network_open(RTMGRP_LINK | RTMGRP_IPV4_IFADDR | RTMGRP_IPV6_IFADDR | RTMGRP_IPV4_ROUTE | RTMGRP_IPV6_ROUTE);
  if (fd >= 0 && sd_event_add_io(link->event, &link->network, fd, EPOLLIN, changed_cb, link) >= 0) {
    link->network_fd = fd;
    return;
  }
  if (fd >= 0) close(fd);
}

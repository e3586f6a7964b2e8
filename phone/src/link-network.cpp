/* Hears from the kernel that the network changed: an interface, an address or a route came or went; and, while the
   watch is looked for, a neighbour that was silent came back.
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

constexpr size_t kSilentMax = 64;

/* Whether a neighbour that was known to be silent answers, or announced itself. */
bool neighbour_came(phone_link *link, const nlmsghdr *h) {
  if (h->nlmsg_type != RTM_NEWNEIGH || h->nlmsg_len < NLMSG_LENGTH(sizeof(ndmsg))) return false;
  const auto *told = static_cast<const ndmsg *>(NLMSG_DATA(h));
  auto length = static_cast<unsigned>(NLMSG_PAYLOAD(h, sizeof(ndmsg)));
  for (auto *a = reinterpret_cast<const rtattr *>(told + 1); RTA_OK(a, length); a = RTA_NEXT(a, length)) {
    if (a->rta_type != NDA_DST) continue;
    std::string address(static_cast<const char *>(RTA_DATA(a)), RTA_PAYLOAD(a));
    if (!(told->ndm_state & (NUD_INCOMPLETE | NUD_FAILED))) return link->silent.erase(address) > 0;
    if (link->silent.size() < kSilentMax) link->silent.insert(address);
  }
  return false;
}

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
  bool came = false, went = false, neighbour = false;
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
      neighbour = neighbour_came(link, h) || neighbour;
    }
  }
  if (came || went) stream_network_changed(link, went);
  if (neighbour) stream_neighbour_came(link);
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

void network_watch_neighbours(phone_link *link, bool on) {
  constexpr int group = RTNLGRP_NEIGH;
  link->silent.clear();
  if (link->network_fd >= 0)
    setsockopt(link->network_fd, SOL_NETLINK, on ? NETLINK_ADD_MEMBERSHIP : NETLINK_DROP_MEMBERSHIP, &group,
               sizeof group);
}

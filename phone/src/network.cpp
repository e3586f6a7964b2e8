#include "network.h"

#include <linux/netlink.h>
#include <sys/socket.h>
#include <unistd.h>

int network_open(uint32_t groups) {
  int fd = socket(AF_NETLINK, SOCK_RAW | SOCK_NONBLOCK | SOCK_CLOEXEC, NETLINK_ROUTE);
  sockaddr_nl address = {};
  address.nl_family = AF_NETLINK;
  address.nl_groups = groups;
  if (fd >= 0 && bind(fd, reinterpret_cast<sockaddr *>(&address), sizeof address) == 0) return fd;
  if (fd >= 0) close(fd);
  return -1;
}

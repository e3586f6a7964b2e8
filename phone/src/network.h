/* Changes of this machine's network, as the kernel tells them. The link to the watch and the mirrors of accounts wait
   for them. */
#ifndef BRISEL_PHONE_NETWORK_H
#define BRISEL_PHONE_NETWORK_H

#include <cstdint>

/* Opens a socket that can be read, without waiting, when something of the groups (RTMGRP_… of linux/rtnetlink.h)
   changed; the caller closes it. -1: there is none. */
int network_open(uint32_t groups);

#endif

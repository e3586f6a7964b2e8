/* Sockets that processes of one user find each other by, in a folder of their own. Thread: any. */
#ifndef BRISEL_PHONE_LOCAL_SOCKET_H
#define BRISEL_PHONE_LOCAL_SOCKET_H

#include <string>

/* Listens at that name in the place of whoever did before. type: SOCK_STREAM or SOCK_SEQPACKET. Neither this socket nor
   what it accepts blocks. Returns the socket, or an errno below 0. */
int local_listen(const std::string &folder, const char *name, int type);
/* Returns a connection that does not block, or -1 when nobody listens. */
int local_connect(const std::string &folder, const char *name, int type);

#endif

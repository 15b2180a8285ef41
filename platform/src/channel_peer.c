/* The socket under a channel and who is at its other end. Who a peer is comes from the
 * kernel (SO_PEERCRED, taken when the connection was made), never from what it sends. */
#include "channel_state_internal.h"

#include <errno.h>
#include <fcntl.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

/* Longest a connect may wait for a full listen backlog. */
#define CONNECT_TIMEOUT_MS 1000

void channel_peer_identify(velna_channel *ch, int fd)
{
        int fl = fcntl(fd, F_GETFL);
        if (fl >= 0 && !(fl & O_NONBLOCK))
                fcntl(fd, F_SETFL, fl | O_NONBLOCK);
        fcntl(fd, F_SETFD, FD_CLOEXEC);

        struct ucred cred;
        socklen_t clen = sizeof cred;
        if (getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &cred, &clen) == 0) {
                ch->peer_pid = cred.pid;
                ch->peer_uid = cred.uid;
        } else {
                ch->peer_pid = 0;
                ch->peer_uid = (uid_t)-1;
        }
}

pid_t velna_channel_peer_pid(velna_channel *channel)
{
        return channel ? channel->peer_pid : 0;
}

uid_t velna_channel_peer_uid(velna_channel *channel)
{
        return channel ? channel->peer_uid : (uid_t)-1;
}

int velna_channel_connect(const char *path, uint32_t max_frame, velna_channel **out)
{
        if (!path || !out)
                return -EINVAL;

        struct sockaddr_un addr = { .sun_family = AF_UNIX };
        size_t plen = strlen(path);
        if (plen == 0 || plen >= sizeof addr.sun_path)
                return -EIO;
        memcpy(addr.sun_path, path, plen + 1);

        int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
        if (fd < 0)
                return -EIO;

        /* A blocking connect returns at once unless the listener's backlog is full;
         * the send timeout bounds that wait. */
        struct timeval tv = { .tv_sec = CONNECT_TIMEOUT_MS / 1000,
                              .tv_usec = (CONNECT_TIMEOUT_MS % 1000) * 1000 };
        setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &tv, sizeof tv);

        int r;
        do {
                r = connect(fd, (struct sockaddr *)&addr, sizeof addr);
        } while (r < 0 && errno == EINTR);
        if (r < 0) {
                int e = errno;
                close(fd);
                return (e == ENOENT || e == ECONNREFUSED || e == ENOTDIR) ? -ENOENT : -EIO;
        }

        struct timeval zero = { 0, 0 };
        setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &zero, sizeof zero);

        velna_channel *ch = velna_channel_new(fd, max_frame);
        if (!ch)
                return -ENOMEM;
        *out = ch;
        return 0;
}

#include "platform/nodes/Fd.h"

#include <sys/socket.h>

namespace Services::Nodes {

void endStream(Fd socket) noexcept {
    // A socket that is closed with bytes unread gives its client an error in place of the end of the stream. After the
    // shutdown nothing more comes in, so this ends.
    shutdown(socket.get(), SHUT_RDWR);
    char unread[4096];
    while (recv(socket.get(), unread, sizeof unread, MSG_DONTWAIT) > 0) {
    }
}

}  // namespace Services::Nodes

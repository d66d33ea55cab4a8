// listener.h - the HTTP server below the vault: cpp-httplib, on sockets read through a large buffer, with the status
// texts that clients of a vault look for.
#pragma once

#include <httplib.h>

namespace vault {

class Listener : public httplib::Server {
public:
    // From a handler: ends its connection after the reply, because what follows on it can't be told from the rest of a
    // body that wasn't read.
    static void closeAfterReply();

private:
    bool process_and_close_socket(socket_t socket) override;
};

}  // namespace vault

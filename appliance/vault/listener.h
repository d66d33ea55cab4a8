// listener.h - the HTTP server below the vault: cpp-httplib, on sockets read through a large buffer, with the status
// texts that clients of a vault look for.
#pragma once

#include <httplib.h>

namespace vault {

class Listener : public httplib::Server {
private:
    bool process_and_close_socket(socket_t socket) override;
};

}  // namespace vault

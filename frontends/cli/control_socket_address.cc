#include "control_socket_address.h"

#include "platform/local_endpoint.h"

namespace tavrix {

int ListenControlSocket(const std::string& path, std::string* error) {
  return platform::listenUnixSocket(path, error);
}

int ConnectControlSocket(const std::string& path) { return platform::connectUnixSocket(path); }

}  // namespace tavrix

// Making and reaching a control socket by its path, however long the data
// root's path is (a socket address holds about a hundred bytes; a longer
// path is reached through its folder).
#pragma once

#include <string>

namespace tavrix {

// A listening socket at `path`, readable and writable by its owner only;
// -1 with a message.
int ListenControlSocket(const std::string& path, std::string* error);
// A connection to the socket at `path`; -1 with errno set (ECONNREFUSED or
// ENOENT: nobody listens there any more).
int ConnectControlSocket(const std::string& path);

}  // namespace tavrix

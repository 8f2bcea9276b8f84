#include "notify.h"

#include <cstddef>
#include <cstdlib>
#include <cstring>

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

namespace zuresourced {

void notifyServiceManager(const std::string& state) {
  const char* name = std::getenv("NOTIFY_SOCKET");
  if (name == nullptr) return;
  const std::size_t length = std::strlen(name);
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  // Only a path or an abstract name fits; anything else is not a socket we can reach.
  if (length < 2 || length >= sizeof address.sun_path || (name[0] != '/' && name[0] != '@')) return;
  std::memcpy(address.sun_path, name, length);
  if (name[0] == '@') address.sun_path[0] = '\0';
  // An abstract name is exactly its bytes: the address ends where the name does.
  const auto size = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + length +
                                           (name[0] == '@' ? 0 : 1));
  const int fd = ::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  if (fd < 0) return;
  // Unreachable or full: the manager learns nothing, the service goes on.
  (void)::sendto(fd, state.data(), state.size(), MSG_NOSIGNAL,
                 reinterpret_cast<const sockaddr*>(&address), size);
  ::close(fd);
}

}  // namespace zuresourced

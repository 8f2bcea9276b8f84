#include <fcntl.h>
#include <netdb.h>
#include <poll.h>
#include <unistd.h>

#include <cstring>
#include <vector>

#include <netinet/in.h>
#include <sys/socket.h>

#include <zuhost/zuerror.h>

#include <zufleettesting/zutcprelay.h>

namespace ZU {

namespace {
const char* const kFile = "fleet/testing/zufleettesting/zutcprelay";

sockaddr_in loopback(int port) {
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  address.sin_port = htons(static_cast<std::uint16_t>(port));
  return address;
}

/// A listening socket on `port` of 127.0.0.1 (0: a free one); -1 on failure.
int listenOn(int port) {
  const int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (fd < 0) return -1;
  const int on = 1;
  ::setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
  sockaddr_in address = loopback(port);
  if (::bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0 ||
      ::listen(fd, 128) != 0) {
    ::close(fd);
    return -1;
  }
  return fd;
}

int portOf(int fd) {
  sockaddr_in address{};
  socklen_t size = sizeof address;
  ::getsockname(fd, reinterpret_cast<sockaddr*>(&address), &size);
  return ntohs(address.sin_port);
}

/// Closes `fd` with a reset instead of an orderly end.
void reset(int fd) {
  linger hard{1, 0};
  ::setsockopt(fd, SOL_SOCKET, SO_LINGER, &hard, sizeof hard);
  ::close(fd);
}

/// Writes all of `data`; false when the peer is gone.
bool writeAll(int fd, const char* data, std::size_t size) {
  while (size > 0) {
    const ssize_t put = ::send(fd, data, size, MSG_NOSIGNAL);
    if (put <= 0) return false;
    data += put;
    size -= static_cast<std::size_t>(put);
  }
  return true;
}

struct Link {
  int client = -1;
  int upstream = -1;
};
}  // namespace

ZUTcpRelay::ZUTcpRelay(const std::string& upstream) {
  const std::string prefix = "http://";
  const std::size_t colon = upstream.rfind(':');
  addrinfo hints{};
  hints.ai_socktype = SOCK_STREAM;
  addrinfo* found = nullptr;
  if (upstream.rfind(prefix, 0) != 0 || colon < prefix.size() ||
      ::getaddrinfo(upstream.substr(prefix.size(), colon - prefix.size()).c_str(),
                    upstream.substr(colon + 1).c_str(), &hints, &found) != 0 ||
      !found)
    throw ZUError("ZUTcpRelay", "ZUTcpRelay", "not an endpoint http://HOST:PORT: " + upstream,
                  kFile, __LINE__);
  std::memcpy(&upstream_, found->ai_addr, found->ai_addrlen);
  upstreamSize_ = found->ai_addrlen;
  ::freeaddrinfo(found);
  const int listener = listenOn(0);
  if (listener < 0 || ::pipe2(wake_, O_CLOEXEC) != 0) {
    if (listener >= 0) ::close(listener);
    throw ZUError("ZUTcpRelay", "ZUTcpRelay", "cannot listen on 127.0.0.1", kFile, __LINE__);
  }
  port_ = portOf(listener);
  ::close(listener);  // the thread listens on the same port
  thread_ = std::thread([this] { run(); });
  setMode(Mode::Pass);
}

ZUTcpRelay::~ZUTcpRelay() {
  {
    ZUMutexLock lock(mutex_);
    stopping_ = true;
  }
  const char byte = 0;
  (void)!::write(wake_[1], &byte, 1);
  thread_.join();
  ::close(wake_[0]);
  ::close(wake_[1]);
}

std::string ZUTcpRelay::endpoint() const { return "http://127.0.0.1:" + std::to_string(port_); }

void ZUTcpRelay::setMode(Mode mode) {
  ZUMutexLock lock(mutex_);
  mode_ = mode;
  const unsigned ticket = ++requested_;
  const char byte = 0;
  (void)!::write(wake_[1], &byte, 1);
  while (done_ < ticket) lock.wait(applied_);
}

void ZUTcpRelay::run() {
  int listener = -1;
  std::vector<Link> links;
  Mode mode = Mode::Refuse;
  char buffer[65536];
  for (;;) {
    unsigned ticket;
    {
      ZUMutexLock lock(mutex_);
      if (stopping_) break;
      ticket = requested_;
      if (mode_ != mode) {
        mode = mode_;
        if (mode == Mode::Refuse) {
          if (listener >= 0) ::close(listener);
          listener = -1;
          for (const Link& link : links) {
            reset(link.client);
            reset(link.upstream);
          }
          links.clear();
        } else if (listener < 0) {
          listener = listenOn(port_);  // the port was ours a moment ago
        }
      }
      done_ = ticket;
      applied_.notify_all();
    }
    std::vector<pollfd> fds{{wake_[0], POLLIN, 0}};
    if (mode == Mode::Pass) {
      if (listener >= 0) fds.push_back({listener, POLLIN, 0});
      for (const Link& link : links) {
        fds.push_back({link.client, POLLIN, 0});
        fds.push_back({link.upstream, POLLIN, 0});
      }
    }
    if (::poll(fds.data(), fds.size(), -1) < 0) continue;
    if (fds[0].revents) {
      char drain[64];
      (void)!::read(wake_[0], drain, sizeof drain);
      continue;  // the mode may have changed: apply it before moving bytes
    }
    std::size_t at = 1;
    if (listener >= 0 && at < fds.size() && fds[at].fd == listener) {
      if (fds[at].revents & POLLIN) {
        const int client = ::accept4(listener, nullptr, nullptr, SOCK_CLOEXEC);
        const int upstream = ::socket(upstream_.ss_family, SOCK_STREAM | SOCK_CLOEXEC, 0);
        if (client >= 0 && upstream >= 0 &&
            ::connect(upstream, reinterpret_cast<const sockaddr*>(&upstream_), upstreamSize_) ==
                0) {
          links.push_back({client, upstream});
        } else {
          if (client >= 0) reset(client);
          if (upstream >= 0) ::close(upstream);
        }
      }
      ++at;
    }
    // A link accepted in this round was not polled yet: it is kept as is.
    std::vector<Link> kept;
    for (std::size_t i = 0; i < links.size(); ++i, at += 2) {
      const Link& link = links[i];
      bool open = true;
      for (int side = 0; side < 2 && open && at + side < fds.size(); ++side) {
        if (!fds[at + side].revents) continue;
        const int from = side == 0 ? link.client : link.upstream;
        const int to = side == 0 ? link.upstream : link.client;
        const ssize_t got = ::recv(from, buffer, sizeof buffer, 0);
        open = got > 0 && writeAll(to, buffer, static_cast<std::size_t>(got));
      }
      if (open) {
        kept.push_back(link);
      } else {
        ::close(link.client);
        ::close(link.upstream);
      }
    }
    links.swap(kept);
  }
  if (listener >= 0) ::close(listener);
  for (const Link& link : links) {
    ::close(link.client);
    ::close(link.upstream);
  }
}

}  // namespace ZU

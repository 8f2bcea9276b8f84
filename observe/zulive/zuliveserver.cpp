#include "zulive/zuliveserver.h"

#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstring>
#include <stdexcept>
#include <system_error>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>

namespace ZU {

namespace {

using Clock = std::chrono::steady_clock;

// How long an event stream waits for a line before it sends a comment, so
// that a reader that went away, and stop(), are noticed within it.
const std::chrono::milliseconds kStreamPatience(250);
// After its answer, a connection's unread input is drained this long, so
// that closing it does not reset the answer away.
const std::chrono::milliseconds kLinger(200);

int msLeft(Clock::time_point deadline) {
  auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now());
  return static_cast<int>(std::max<long long>(0, left.count()));
}

const char* reason(int status) {
  switch (status) {
    case 200:
      return "OK";
    case 400:
      return "Bad Request";
    case 404:
      return "Not Found";
    case 405:
      return "Method Not Allowed";
    case 431:
      return "Request Header Fields Too Large";
    case 500:
      return "Internal Server Error";
    case 503:
      return "Service Unavailable";
    default:
      return "Status";
  }
}

std::string answer(const ZULiveResponse& r) {
  return "HTTP/1.1 " + std::to_string(r.status) + " " + reason(r.status) +
         "\r\nContent-Type: " + r.contentType +
         "\r\nContent-Length: " + std::to_string(r.body.size()) +
         "\r\nCache-Control: no-cache\r\nConnection: close\r\n\r\n" + r.body;
}

int hexValue(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

/// A query's part with its %XX and '+' decoded; a stray '%' stays as it is.
std::string decode(const std::string& text) {
  std::string out;
  for (std::size_t i = 0; i < text.size(); ++i) {
    if (text[i] == '+') {
      out += ' ';
    } else if (text[i] == '%' && i + 2 < text.size() && hexValue(text[i + 1]) >= 0 &&
               hexValue(text[i + 2]) >= 0) {
      out += static_cast<char>(hexValue(text[i + 1]) * 16 + hexValue(text[i + 2]));
      i += 2;
    } else {
      out += text[i];
    }
  }
  return out;
}

std::string trim(const std::string& s) {
  std::size_t b = s.find_first_not_of(" \t"), e = s.find_last_not_of(" \t\r");
  return b == std::string::npos ? std::string() : s.substr(b, e - b + 1);
}

/// Parses "GET /path?query HTTP/1.1" and the header lines; false when the
/// head is not one.
bool parseHead(const std::string& head, std::string& method, ZULiveRequest& request) {
  std::size_t end = head.find('\n');
  std::string first = trim(head.substr(0, end));
  std::size_t a = first.find(' '), b = first.rfind(' ');
  if (a == std::string::npos || b == a || first.compare(b + 1, 5, "HTTP/") != 0) return false;
  method = first.substr(0, a);
  std::string target = first.substr(a + 1, b - a - 1);
  if (target.empty() || target[0] != '/') return false;
  std::size_t q = target.find('?');
  request.path = decode(target.substr(0, q));
  if (q != std::string::npos) {
    std::string query = target.substr(q + 1);
    std::size_t from = 0;
    while (from <= query.size()) {
      std::size_t amp = std::min(query.find('&', from), query.size());
      std::string part = query.substr(from, amp - from);
      std::size_t eq = part.find('=');
      if (!part.empty())
        request.query[decode(part.substr(0, eq))] =
            eq == std::string::npos ? std::string() : decode(part.substr(eq + 1));
      from = amp + 1;
    }
  }
  while (end != std::string::npos && end + 1 < head.size()) {
    std::size_t next = head.find('\n', end + 1);
    std::string line =
        trim(head.substr(end + 1, next == std::string::npos ? std::string::npos : next - end - 1));
    end = next;
    std::size_t colon = line.find(':');
    if (line.empty() || colon == std::string::npos) continue;
    std::string name = line.substr(0, colon);
    std::transform(name.begin(), name.end(), name.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    request.headers[name] = trim(line.substr(colon + 1));
  }
  return true;
}

}  // namespace

ZULiveServer::ZULiveServer(ZULiveLimits limits) : limits_(limits) {}

ZULiveServer::~ZULiveServer() { stop(); }

void ZULiveServer::page(const std::string& path,
                        std::function<ZULiveResponse(const ZULiveRequest&)> handler) {
  pages_[path] = std::move(handler);
}

void ZULiveServer::stream(ZULiveFeed& feed, std::function<std::string()> snapshot) {
  feed_ = &feed;
  snapshot_ = std::move(snapshot);
}

int ZULiveServer::start(const std::string& host, int port) {
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(static_cast<uint16_t>(port));
  if (port < 0 || port > 65535 || inet_pton(AF_INET, host.c_str(), &address.sin_addr) != 1)
    return -1;
  int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (fd < 0) return -1;
  int on = 1;
  setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
  socklen_t length = sizeof address;
  if (bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0 ||
      listen(fd, 128) != 0 ||
      getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length) != 0 ||
      pipe2(wake_, O_CLOEXEC) != 0) {
    ::close(fd);
    return -1;
  }
  listener_ = fd;
  try {
    acceptor_ = std::thread(&ZULiveServer::acceptLoop, this);
  } catch (const std::system_error&) {
    ::close(listener_);
    ::close(wake_[0]);
    ::close(wake_[1]);
    listener_ = wake_[0] = wake_[1] = -1;
    return -1;
  }
  return ntohs(address.sin_port);
}

void ZULiveServer::acceptLoop() {
  for (;;) {
    pollfd fds[2] = {{listener_, POLLIN, 0}, {wake_[0], POLLIN, 0}};
    if (poll(fds, 2, -1) < 0 && errno != EINTR) return;
    if (fds[1].revents) return;
    if (!(fds[0].revents & POLLIN)) continue;
    sockaddr_in address{};
    socklen_t length = sizeof address;
    int fd = accept4(listener_, reinterpret_cast<sockaddr*>(&address), &length,
                     SOCK_CLOEXEC | SOCK_NONBLOCK);
    if (fd < 0) {
      // Out of descriptors, say: let the connections end rather than spin.
      if (errno == EMFILE || errno == ENFILE || errno == ENOBUFS || errno == ENOMEM) {
        pollfd wake = {wake_[0], POLLIN, 0};
        if (poll(&wake, 1, 100) > 0) return;
      }
      continue;
    }
    char text[INET_ADDRSTRLEN] = "";
    inet_ntop(AF_INET, &address.sin_addr, text, sizeof text);
    Connections::iterator c;
    {
      ZUMutexLock lock(mutex_);
      if (stopping_ || !admit(text)) {
        lock.unlock();
        std::string busy =
            answer({503, "text/plain; charset=utf-8", "busy: too many connections\n"});
        send(fd, busy.data(), busy.size(), MSG_NOSIGNAL);
        ::close(fd);
        continue;
      }
      c = connections_.insert(connections_.end(), Connection{fd, text});
    }
    try {
      std::thread(&ZULiveServer::serve, this, c).detach();
    } catch (const std::system_error&) {
      leave(c);
    }
  }
}

bool ZULiveServer::admit(const std::string& peer) {
  return makeRoom(limits_.perAddress, &peer) && makeRoom(limits_.connections, nullptr);
}

bool ZULiveServer::makeRoom(int limit, const std::string* peer) {
  int open = 0;
  Connection* oldestHead = nullptr;
  for (Connection& c : connections_) {
    if (c.closed || (peer && c.peer != *peer)) continue;
    ++open;
    if (!oldestHead && c.state == State::Head) oldestHead = &c;
  }
  if (open < limit) return true;
  if (!oldestHead) return false;
  shutdown(oldestHead->fd, SHUT_RDWR);
  oldestHead->closed = true;
  return true;
}

void ZULiveServer::serve(Connections::iterator c) {
  int fd = c->fd;  // immutable while the connection is in the list
  std::string head;
  ZULiveRequest request;
  std::string method;
  ZULiveResponse response;
  bool read = readHead(fd, head);
  if (!read && head.size() <= limits_.maxHead) {
    leave(c);  // slow, gone or closed to make room: no answer
    return;
  }
  if (!read) {
    response = {431, "text/plain; charset=utf-8", "request head too large\n"};
  } else if (!parseHead(head, method, request)) {
    response = {400, "text/plain; charset=utf-8", "not an HTTP request\n"};
  } else if (method != "GET") {
    response = {405, "text/plain; charset=utf-8", "only GET\n"};
  } else {
    {
      ZUMutexLock lock(mutex_);
      if (c->closed) {
        lock.unlock();
        leave(c);
        return;
      }
      c->state = State::Busy;
      request.peer = c->peer;
    }
    if (request.path == "/events" && feed_) {
      serveStream(c, request);
      leave(c);
      return;
    }
    try {
      if (request.path == "/snapshot.json" && snapshot_) {
        response = {200, "application/json", snapshot_()};
      } else {
        auto page = pages_.find(request.path);
        if (page == pages_.end())
          response = {404, "text/plain; charset=utf-8", "no such page\n"};
        else
          response = page->second(request);
      }
    } catch (const std::exception& e) {
      response = {500, "text/plain; charset=utf-8", std::string(e.what()) + "\n"};
    }
  }
  if (sendAll(fd, answer(response))) {
    // Drains what the client still sends, so that closing does not reset
    // the answer away before it is read.
    shutdown(fd, SHUT_WR);
    auto deadline = Clock::now() + kLinger;
    char sink[4096];
    for (;;) {
      pollfd p = {fd, POLLIN, 0};
      if (poll(&p, 1, msLeft(deadline)) <= 0) break;
      ssize_t n = recv(fd, sink, sizeof sink, 0);
      if (n <= 0 && !(n < 0 && (errno == EAGAIN || errno == EINTR))) break;
    }
  }
  leave(c);
}

bool ZULiveServer::readHead(int fd, std::string& head) {
  auto deadline = Clock::now() + limits_.headTimeout;
  char buffer[4096];
  for (;;) {
    // The head ends with its blank line, which must come within maxHead
    // bytes, however the reads cut it.
    std::size_t crlf = head.find("\r\n\r\n"), lf = head.find("\n\n");
    std::size_t end = std::min(crlf == std::string::npos ? crlf : crlf + 4,
                               lf == std::string::npos ? lf : lf + 2);
    if (end != std::string::npos || head.size() > limits_.maxHead) return end <= limits_.maxHead;
    pollfd p = {fd, POLLIN, 0};
    int left = msLeft(deadline);
    if (left == 0 || poll(&p, 1, left) <= 0) return false;
    ssize_t n = recv(fd, buffer, sizeof buffer, 0);
    if (n < 0 && (errno == EAGAIN || errno == EINTR)) continue;
    if (n <= 0) return false;
    head.append(buffer, static_cast<std::size_t>(n));
  }
}

bool ZULiveServer::sendAll(int fd, const std::string& data) {
  auto deadline = Clock::now() + limits_.sendTimeout;
  std::size_t sent = 0;
  while (sent < data.size()) {
    ssize_t n = send(fd, data.data() + sent, data.size() - sent, MSG_NOSIGNAL);
    if (n > 0) {
      sent += static_cast<std::size_t>(n);
      continue;
    }
    if (n < 0 && errno != EAGAIN && errno != EINTR) return false;
    pollfd p = {fd, POLLOUT, 0};
    int left = msLeft(deadline);
    if (left == 0 || poll(&p, 1, left) <= 0 || (p.revents & (POLLERR | POLLHUP))) return false;
  }
  return true;
}

void ZULiveServer::serveStream(Connections::iterator c, const ZULiveRequest& request) {
  {
    ZUMutexLock lock(mutex_);
    int all = 0, fromPeer = 0;
    for (const Connection& other : connections_)
      if (!other.closed && other.state == State::Stream) {
        ++all;
        fromPeer += other.peer == c->peer;
      }
    if (all >= limits_.streams || fromPeer >= limits_.streamsPerAddress) {
      lock.unlock();
      sendAll(c->fd, answer({503, "text/plain; charset=utf-8", "busy: too many event streams\n"}));
      return;
    }
    c->state = State::Stream;
  }
  int fd = c->fd;
  // A reader that comes back after a break goes on after the last line it got.
  std::size_t next = 0, last = 0;
  auto id = request.headers.find("last-event-id");
  if (id != request.headers.end() && parseEventId(id->second, last)) next = last + 1;
  if (!sendAll(fd,
               "HTTP/1.1 200 OK\r\nContent-Type: text/event-stream\r\n"
               "Cache-Control: no-cache\r\nConnection: close\r\n\r\n"))
    return;
  for (;;) {
    {
      ZUMutexLock lock(mutex_);
      if (stopping_ || c->closed) return;
    }
    bool closed = false;
    // Lines a slow reader missed in a feed that keeps only the latest are skipped.
    std::vector<std::string> lines = feed_->linesFrom(next, kStreamPatience, closed, &next);
    std::string chunk;
    for (const std::string& line : lines)
      chunk += "id: " + std::to_string(next++) + "\ndata: " + line + "\n\n";
    bool end = closed && lines.empty();
    if (end) chunk = "event: finished\ndata: " + std::to_string(status_) + "\n\n";
    if (chunk.empty()) chunk = ": waiting\n\n";
    if (!sendAll(fd, chunk) || end) return;
  }
}

void ZULiveServer::leave(Connections::iterator c) {
  ZUMutexLock lock(mutex_);
  // Closed under the lock: admit() never shuts down a descriptor reused since.
  ::close(c->fd);
  connections_.erase(c);
  left_.notify_all();
}

void ZULiveServer::finished(int status) {
  status_ = status;
  if (feed_) feed_->close();
}

void ZULiveServer::stop() {
  if (!acceptor_.joinable()) return;
  {
    ZUMutexLock lock(mutex_);
    stopping_ = true;
    for (Connection& c : connections_) {
      shutdown(c.fd, SHUT_RDWR);
      c.closed = true;
    }
  }
  char wake = 1;
  while (write(wake_[1], &wake, 1) < 0 && errno == EINTR) {
  }
  acceptor_.join();
  {
    ZUMutexLock lock(mutex_);
    while (!connections_.empty()) lock.wait(left_);
  }
  ::close(listener_);
  ::close(wake_[0]);
  ::close(wake_[1]);
  listener_ = wake_[0] = wake_[1] = -1;
}

bool ZULiveServer::parseEventId(const std::string& text, std::size_t& id) {
  if (text.empty() || text.size() > 19) return false;  // 19 digits fit in 64 bits
  std::size_t value = 0;
  for (char c : text) {
    if (c < '0' || c > '9') return false;
    std::size_t digit = static_cast<std::size_t>(c - '0');
    if (value > (static_cast<std::size_t>(-1) - 1 - digit) / 10) return false;  // id + 1 must fit
    value = value * 10 + digit;
  }
  id = value;
  return true;
}

std::string ZULiveServer::followScript(const std::vector<std::string>& sections) {
  std::string ids;
  for (const std::string& s : sections) ids += (ids.empty() ? "'" : ", '") + s + "'";
  return R"JS(
(function () {
  var shown = document.getElementById('stream'), list = document.getElementById('streamed');
  var count = 0, pending = false, over = false;
  function refresh() {
    pending = false;
    fetch(location.pathname).then(function (r) { return r.text(); }).then(function (html) {
      var fresh = new DOMParser().parseFromString(html, 'text/html');
      [)JS" +
         ids + R"JS(].forEach(function (id) {
        var from = fresh.getElementById(id), to = document.getElementById(id);
        if (from && to) to.innerHTML = from.innerHTML;
      });
    }).catch(function () {});
  }
  function fallBack() {
    shown.textContent = 'stream broken: reloading every second';
    setTimeout(function () { location.reload(); }, 1000);
  }
  if (!window.EventSource) return fallBack();
  var source = new EventSource('/events');
  source.onmessage = function (m) {
    var e = JSON.parse(m.data), row = document.createElement('div');
    row.textContent = Math.round(e.ms) + ' ms ' + e.kind + ' ' + (e.owner || '') + ' ' + (e.resource || '');
    list.insertBefore(row, list.firstChild);
    while (list.childNodes.length > 12) list.removeChild(list.lastChild);
    shown.textContent = 'live: ' + (++count) + ' events streamed';
    if (!pending) { pending = true; setTimeout(refresh, 200); }
  };
  source.addEventListener('finished', function () {
    over = true;
    source.close();
    shown.textContent = 'live: ' + count + ' events streamed; the run is over';
    refresh();
  });
  source.onerror = function () {
    if (over) return;
    source.close();
    fallBack();
  };
})();
)JS";
}

}  // namespace ZU

#pragma once

// A small HTTP server for live pages on the local machine: GET pages, a
// server-sent-events stream of a ZULiveFeed, and limits that keep the page
// served while a crowd of slow or idle clients holds connections open.

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <functional>
#include <list>
#include <map>
#include <string>
#include <thread>
#include <vector>

#include <zuhost/zumutex.h>

#include "zulive/zulivefeed.h"

namespace ZU {

/// What a page is asked: the path, the query's parameters (decoded), the
/// header fields (names in lower case) and the client's address.
struct ZULiveRequest {
  std::string path;
  std::map<std::string, std::string> query;
  std::map<std::string, std::string> headers;
  std::string peer;
};

struct ZULiveResponse {
  int status = 200;
  std::string contentType = "text/plain; charset=utf-8";
  std::string body;
};

/// How many connections the server keeps, and how long it waits for them.
struct ZULiveLimits {
  int connections = 128;                        // open at once, in all
  int perAddress = 32;                          // open at once from one client address
  int streams = 48;                             // event streams at once, in all
  int streamsPerAddress = 16;                   // event streams at once from one address
  std::chrono::milliseconds headTimeout{2000};  // to send a whole request head
  std::chrono::milliseconds sendTimeout{3000};  // a write that cannot go on this long ends it
  std::size_t maxHead = 16 * 1024;              // bytes of a request head
};

/// Serves GET requests on a thread per connection, each answered and closed
/// (no keep-alive), and "/events" as a stream of a feed's lines.
///
/// A crowd cannot silence the page: a request head must arrive whole within
/// headTimeout; connections are bounded per client address and in all, and
/// when a new one comes past a bound, the oldest connection still sending its
/// head (of that address, or of any) is closed to make room, so that an
/// ordinary request always finds a slot; event streams, which stay open,
/// have lower bounds of their own (past them: 503), and a stream whose
/// reader stops reading is closed after sendTimeout. stop() closes every
/// connection at once.
///
/// Thread safety: page(), stream(), start() and stop() are called from one
/// thread (page() and stream() before start()); finished() from any thread.
/// mutex_ guards the connection list and stopping_; connection threads take
/// it only to enter and leave the list. Takes: mutex_, then the feed's.
class ZULiveServer {
 public:
  explicit ZULiveServer(ZULiveLimits limits = ZULiveLimits());
  ~ZULiveServer();
  ZULiveServer(const ZULiveServer&) = delete;
  ZULiveServer& operator=(const ZULiveServer&) = delete;

  /// Before start(): answers GET `path` with `handler`'s response. The
  /// handler runs on a connection's thread, with no lock of the server held.
  void page(const std::string& path, std::function<ZULiveResponse(const ZULiveRequest&)> handler);
  /// Before start(): serves "/events", a server-sent-events stream of
  /// `feed`'s lines, each with its number as id, from the first or from the
  /// one after a Last-Event-ID the reader sends back (a value that is not a
  /// decimal number of a line starts from the first), ended by a "finished"
  /// event with the status given to finished() once the feed is closed; and
  /// "/snapshot.json", `snapshot`'s answer. Both must outlive the server.
  void stream(ZULiveFeed& feed, std::function<std::string()> snapshot);
  /// Binds `host`:`port` (0: any free port) and starts serving. Returns the
  /// port, or -1 when it cannot be bound or its thread cannot be made.
  int start(const std::string& host, int port);
  /// The run is over with `status`: the feed is closed, and each stream ends
  /// with a "finished" event once its reader has every line.
  void finished(int status);
  /// Stops accepting, closes every connection and waits for their threads
  /// (each notices within a quarter of a second). Idempotent.
  void stop();

  /// The line a reader resumes after, from a Last-Event-ID value: a decimal
  /// number that fits, nothing else (no sign, space, exponent or suffix).
  /// False for anything else.
  static bool parseEventId(const std::string& text, std::size_t& id);
  /// A script for a page that follows "/events": each event adds a line to
  /// the element "streamed" and fetches the page again (at most every
  /// 200 ms) to replace the elements of `sections` (ids); the element
  /// "stream" says how it goes. When the stream breaks before the end, the
  /// page reloads itself every second.
  static std::string followScript(const std::vector<std::string>& sections);

 private:
  enum class State { Head, Busy, Stream };
  struct Connection {
    int fd;
    std::string peer;
    State state = State::Head;
    bool closed = false;  // shut down by the server; its thread ends it
  };
  using Connections = std::list<Connection>;

  void acceptLoop();
  /// Makes room for a connection from `peer`, or refuses it. Holds mutex_.
  bool admit(const std::string& peer) ZU_REQUIRES(mutex_);
  /// Makes room within `limit` among the connections (of `peer`, or all
  /// when null), closing the oldest still sending its head; false when none
  /// is. Holds mutex_.
  bool makeRoom(int limit, const std::string* peer) ZU_REQUIRES(mutex_);
  void serve(Connections::iterator c);
  bool readHead(int fd, std::string& head);
  void serveStream(Connections::iterator c, const ZULiveRequest& request);
  bool sendAll(int fd, const std::string& data);
  void leave(Connections::iterator c);

  const ZULiveLimits limits_;
  std::map<std::string, std::function<ZULiveResponse(const ZULiveRequest&)>>
      pages_;                              // set before start()
  ZULiveFeed* feed_ = nullptr;             // set before start()
  std::function<std::string()> snapshot_;  // set before start()
  int listener_ = -1;                      // set by start()
  int wake_[2] = {-1, -1};                 // a pipe that wakes the accepting thread
  std::thread acceptor_;
  std::atomic<int> status_{-1};

  ZUMutex mutex_;
  std::condition_variable left_;  // a connection left the list
  Connections connections_ ZU_GUARDED_BY(mutex_);
  bool stopping_ ZU_GUARDED_BY(mutex_) = false;
};

}  // namespace ZU

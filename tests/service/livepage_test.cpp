// zuresourced --http: the live page and its snapshot over real HTTP, showing
// what a client process holds.

#include <unistd.h>

#include <memory>
#include <string>
#include <vector>

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include "support/childprocess.h"
#include "support/runningservice.h"
#include "support/snapshot.h"

namespace {

using zutest::ChildProcess;
using zutest::RunningService;

/// GET `path` on 127.0.0.1:`port`: the whole answer, head and body ("" when
/// nothing answers).
std::string get(int port, const std::string& path) {
  const int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(static_cast<uint16_t>(port));
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  std::string answer;
  if (::connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0) {
    const std::string request = "GET " + path + " HTTP/1.1\r\nHost: 127.0.0.1\r\n\r\n";
    if (::send(fd, request.data(), request.size(), MSG_NOSIGNAL) ==
        static_cast<ssize_t>(request.size())) {
      char chunk[4096];
      for (ssize_t n; (n = ::recv(fd, chunk, sizeof chunk, 0)) > 0;)
        answer.append(chunk, static_cast<std::size_t>(n));
    }
  }
  ::close(fd);
  return answer;
}

std::string body(const std::string& answer) {
  const auto end = answer.find("\r\n\r\n");
  return end == std::string::npos ? std::string() : answer.substr(end + 4);
}

/// The port in "zuresourced: live page on http://127.0.0.1:PORT/", or -1.
int livePort(RunningService& service) {
  const std::string line = service.process().lineStartingWith("zuresourced: live page on");
  const auto colon = line.rfind(':');
  return colon == std::string::npos ? -1 : std::atoi(line.c_str() + colon + 1);
}

TEST(LivePageTest, PageAndSnapshotShowWhatAClientHolds) {
  RunningService service(ZURESOURCED, {"--http", "0"});
  ASSERT_TRUE(service.listening());
  const int port = livePort(service);
  ASSERT_GT(port, 0);

  // A name with markup in it shows as text on the page, never as markup.
  ChildProcess holder(SERVICE_CLIENT, {service.target(), "Greeter", "hold", "<i>nod</i>", "Head"});
  ASSERT_EQ(holder.lineStartingWith("granted"), "granted");

  const std::string page = get(port, "/");
  EXPECT_EQ(page.rfind("HTTP/1.1 200", 0), 0u) << page;
  EXPECT_NE(page.find("&lt;i&gt;nod&lt;/i&gt;"), std::string::npos) << page;
  EXPECT_EQ(page.find("<i>nod</i>"), std::string::npos);
  // The grant came as an event, in the page's latest events.
  EXPECT_NE(page.find("id=\"events\""), std::string::npos);

  EXPECT_EQ(zutest::heldIn(body(get(port, "/snapshot.json"))),
            (zutest::Held{{"Head", {"<i>nod</i>"}}}));

  // Read-only: nothing but GET of its pages is answered with 200.
  EXPECT_EQ(get(port, "/release?owner=nod").rfind("HTTP/1.1 404", 0), 0u);
}

}  // namespace

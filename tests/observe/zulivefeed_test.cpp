// The live feed's line numbers, when it keeps every line and when it keeps
// only the latest: a reader asking from any point gets the lines it can
// still have, and learns the number of the first.

#include <chrono>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include <zulive/zulivefeed.h>

namespace {

struct Row {
  const char* what;
  std::size_t keep;   // 0: every line
  int added;          // lines "0", "1", ... added
  std::size_t from;   // asked from
  std::size_t first;  // number of the first line returned
  std::vector<std::string> lines;
};

TEST(ZULiveFeedTest, LinesFromAnyPoint) {
  const std::vector<Row> rows = {
      {"every line, from the start", 0, 3, 0, 0, {"0", "1", "2"}},
      {"every line, from the middle", 0, 3, 1, 1, {"1", "2"}},
      {"every line, past the end", 0, 3, 5, 5, {}},
      {"latest two, from the start", 2, 5, 0, 3, {"3", "4"}},
      {"latest two, from a kept line", 2, 5, 4, 4, {"4"}},
      {"latest two, exactly full", 2, 2, 0, 0, {"0", "1"}},
      {"latest two, from the end", 2, 5, 5, 5, {}},
  };
  for (const Row& row : rows) {
    ZU::ZULiveFeed feed(row.keep);
    for (int i = 0; i < row.added; ++i) feed.add(std::to_string(i));
    feed.close();  // no waiting for lines that will not come
    bool closed = false;
    std::size_t first = 99;
    EXPECT_EQ(feed.linesFrom(row.from, std::chrono::milliseconds(0), closed, &first), row.lines)
        << row.what;
    EXPECT_EQ(first, row.first) << row.what;
    EXPECT_TRUE(closed) << row.what;
    EXPECT_EQ(feed.count(), static_cast<std::size_t>(row.added)) << row.what;
  }
}

}  // namespace

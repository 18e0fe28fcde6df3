#include "helper/http_response_reader.h"

#include <gtest/gtest.h>

namespace vesko {
namespace {

using State = HttpResponseReader::State;

TEST(HttpResponseReaderTest, JudgesAnswersHoweverTheyAreCut) {
  const std::string longHead =
      "HTTP/1.1 200 OK\r\nX: " + std::string(HttpResponseReader::maxHeaderBytes, 'x') + "\r\n\r\n";
  const struct {
    const char* what;
    std::string text;
    State state;
    int status = 0;
    const char* body = "";
  } cases[] = {
      {"plain", "HTTP/1.1 200 OK\r\nContent-Length: 2\r\n\r\n{}", State::complete, 200, "{}"},
      {"no reason", "HTTP/1.1 404\r\ncontent-length:0\r\n\r\n", State::complete, 404, ""},
      {"bytes after it", "HTTP/1.1 500 A b\r\nContent-Length: 1\r\n\r\nabc", State::complete, 500,
       "a"},
      {"same length twice", "HTTP/1.1 200 OK\r\nContent-Length: 1\r\nContent-Length: 1\r\n\r\na",
       State::complete, 200, "a"},
      {"largest body", "HTTP/1.1 200 OK\r\nContent-Length: 8\r\n\r\n12345678", State::complete, 200,
       "12345678"},
      {"head unfinished", "HTTP/1.1 200 OK\r\nContent-Length: 2\r\n", State::incomplete},
      {"body unfinished", "HTTP/1.1 200 OK\r\nContent-Length: 2\r\n\r\n{", State::incomplete},
      {"nothing", "", State::incomplete},
      {"too large a body", "HTTP/1.1 200 OK\r\nContent-Length: 9\r\n\r\n", State::tooLarge},
      {"length overflows", "HTTP/1.1 200 OK\r\nContent-Length: 99999999999999999999\r\n\r\n",
       State::tooLarge},
      {"too long a head", longHead, State::tooLarge},
      {"older version", "HTTP/1.0 200 OK\r\nContent-Length: 0\r\n\r\n", State::malformed},
      {"no status", "HTTP/1.1 OK\r\nContent-Length: 0\r\n\r\n", State::malformed},
      {"interim", "HTTP/1.1 100 Continue\r\nContent-Length: 0\r\n\r\n", State::malformed},
      {"status too long", "HTTP/1.1 2000 OK\r\nContent-Length: 0\r\n\r\n", State::malformed},
      {"no length", "HTTP/1.1 200 OK\r\n\r\n", State::malformed},
      {"negative length", "HTTP/1.1 200 OK\r\nContent-Length: -1\r\n\r\n", State::malformed},
      {"signed length", "HTTP/1.1 200 OK\r\nContent-Length: +1\r\n\r\na", State::malformed},
      {"two lengths", "HTTP/1.1 200 OK\r\nContent-Length: 1\r\nContent-Length: 2\r\n\r\nab",
       State::malformed},
      {"chunked", "HTTP/1.1 200 OK\r\nContent-Length: 1\r\nTransfer-Encoding: chunked\r\n\r\na",
       State::malformed},
      {"folded", "HTTP/1.1 200 OK\r\nContent-Length: 1\r\n more\r\n\r\na", State::malformed},
      {"space before colon", "HTTP/1.1 200 OK\r\nContent-Length : 1\r\n\r\na", State::malformed},
      {"bare line feed", "HTTP/1.1 200 OK\nContent-Length: 1\r\n\r\na", State::malformed},
  };
  for (const auto& item : cases) {
    for (const std::size_t piece : {std::size_t{1}, std::size_t{3}, item.text.size() + 1}) {
      SCOPED_TRACE(std::string(item.what) + " in pieces of " + std::to_string(piece));
      HttpResponseReader reader(8);
      for (std::size_t at = 0; at < item.text.size(); at += piece)
        reader.feed(std::string_view(item.text).substr(at, piece));
      EXPECT_EQ(reader.state(), item.state);
      if (item.state != State::complete) continue;
      const HttpResponse response = reader.take();
      EXPECT_EQ(response.status, item.status);
      EXPECT_EQ(response.body, item.body);
    }
  }
}

}  // namespace
}  // namespace vesko

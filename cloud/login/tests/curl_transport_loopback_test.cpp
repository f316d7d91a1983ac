// What libcurl knew during an exchange is nowhere in the memory of the process afterwards.
#include <unistd.h>

#include <string>

#include "base/include/wipe.h"
#include "cloud/login/tests/cloud_auth_v0_login.h"
#include "testsupport/process.h"
#include "testsupport/process_memory.h"
#include "testsupport/sanitizers.h"

#ifndef FERRO_SANITIZED

using testsupport::httpReply;
using testsupport::HttpRequest;
using testsupport::HttpServer;

namespace {

// A secret that stands nowhere unless somebody makes its text. Each one is another: what this process's server has
// received stays in its memory.
class Secret {
 public:
  static constexpr unsigned LENGTH = 48;

  char at(unsigned i) const { return static_cast<char>('a' + (i * 7919U + 12345U + m_number * 31337U) % 1021U % 26U); }
  // In base 64, as it stands behind a number of bytes that three divides.
  char encodedAt(unsigned i) const {
    const unsigned first = i / 4 * 3;
    const auto byte = [this](unsigned place) { return static_cast<unsigned>(at(place)); };
    const unsigned bits = byte(first) << 16U | byte(first + 1) << 8U | byte(first + 2);
    return "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/"[bits >> (18U - i % 4 * 6) & 63U];
  }
  // At once: growing would leave pieces of it.
  std::string text() const {
    std::string made;
    made.reserve(LENGTH);
    for (unsigned i = 0; i < LENGTH; ++i) made += at(i);
    return made;
  }
  lumo::Shredder2 locked() const {
    lumo::Shredder2 made;
    for (unsigned i = 0; i < LENGTH; ++i) made += at(i);
    return made;
  }
  std::size_t places() const {
    return testsupport::placesOf(LENGTH, [this](unsigned i) { return at(i); }).size() +
           testsupport::placesOf(LENGTH / 3 * 4, [this](unsigned i) { return encodedAt(i); }).size();
  }

 private:
  static inline unsigned count = 0;
  const unsigned m_number = ++count;
};

// What a process of its own says: the server's threads, and with them all that they are sent, stay in the test's.
template <class Body>
std::string inChild(Body body) {
  const auto result = testsupport::runInChild([&body] {
    const std::string text = body();
    return write(1, text.data(), text.size()) == static_cast<ssize_t>(text.size()) ? 0 : 1;
  });
  return result.status == 0 ? result.out : "failed: " + result.err;
}

class TransportMemory : public CurlObjectTest {};

}  // namespace

TEST_F(TransportMemory, HoldsNoProxyPasswordNorCookieAfterAnExchange) {
  const Secret password;
  const Secret cookie;
  HttpServer server([&cookie](const HttpRequest& request) {
    if (request.method() == "CONNECT") return testsupport::tunnelReply();
    return httpReply("200 OK", {"Set-Cookie: .ASPXAUTH=" + cookie.text()}, "hello");
  });
  EXPECT_EQ(inChild([&] {
              {
                CurlObject object;
                object.setProxy(server.address(), "basic", "admin", password.locked());
                object.perform("http://server.example.test/", "", 0);
                object.perform("http://server.example.test/", "", 0);
                if (password.places() == 0 || cookie.places() == 0) return "the search finds nothing";
              }
              if (password.places() != 0) return "the password is left";
              return cookie.places() != 0 ? "the cookie is left" : "nothing is left";
            }),
            "nothing is left");
  EXPECT_EQ(server.requests().size(), 3U);
  EXPECT_THAT(server.requests()[2].head, testing::HasSubstr("Cookie: .ASPXAUTH=" + cookie.text()));
}

TEST_F(V0Login, LeavesNoPasswordInTheMemoryOfTheProcess) {
  const Secret password;
  script({policy(passwordAlone()), success(), success(), success()});
  EXPECT_EQ(inChild([&] {
              const testsupport::LogCapture quiet("DEBUG");
              {
                auto answer = password.text();
                const WipeAtEnd wipeAnswer(answer);
                client->startAuthentication();
                if (advance("UP", ACTION_ANSWER, answer) != AUTH_DONE) return "no login";
                if (password.places() == 0) return "the search finds nothing";
              }
              client.reset();
              access.reset();
              return password.places() != 0 ? "the password is left" : "nothing is left";
            }),
            "nothing is left");
  EXPECT_TRUE(scriptIsOver());
}

#endif

// The pool over real exchanges: whose tunnel a connection uses, what it keeps, and many threads at once.
#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <thread>

#include "cloud/http/tests/cloud_object_pool_access.h"
#include "cloud/http/tests/curl_object_fixture.h"
#include "testsupport/http_server.h"
#include "testsupport/manual_clock.h"
#include "testsupport/temp_folder.h"

namespace {

using std::chrono::seconds;
using testing::Each;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Pair;
using testsupport::httpReply;
using testsupport::HttpReply;
using testsupport::HttpRequest;
using testsupport::HttpServer;
using testsupport::tunnelReply;

// Nobody resolves these names: the proxy plays the server itself.
constexpr char PLAIN[] = "http://server.example.test/path";
constexpr char SECURE[] = "https://localhost/path";

const std::string ALICE = "Basic YWxpY2U6c2VjcmV0";  // alice:secret
const std::string BOB = "Basic Ym9iOm90aGVy";        // bob:other

// A proxy that asks for Basic and plays the web server behind itself, which answers with the credentials that opened
// the tunnel.
class TellingProxy {
 public:
  explicit TellingProxy(const testsupport::Certificate* certificate = nullptr, bool open = false)
      : m_open(open), m_server([this](const HttpRequest& request) { return answer(request); }, certificate) {}

  std::string address() const { return m_server.address(); }
  const HttpServer& server() const { return m_server; }
  // The credentials of each CONNECT, in the order in which the connections came.
  std::vector<std::string> opened() const {
    std::vector<std::string> all;
    for (const HttpRequest& request : m_server.requests()) {
      if (request.method() == "CONNECT") all.push_back(request.header("Proxy-Authorization"));
    }
    return all;
  }

 private:
  HttpReply answer(const HttpRequest& request) {
    const std::lock_guard<std::mutex> lock(m_mutex);
    if (request.method() != "CONNECT") return httpReply("200 OK", {}, m_holders[request.connection]);
    const std::string given = request.header("Proxy-Authorization");
    if (given.empty() && !m_open) {
      return httpReply("407 Proxy Authentication Required", {"Proxy-Authenticate: Basic realm=\"x\""});
    }
    m_holders[request.connection] = given.empty() ? "nobody" : given;
    return tunnelReply(request.target().find(":443") != std::string::npos);
  }

  const bool m_open;
  std::mutex m_mutex;
  std::map<int, std::string> m_holders;
  HttpServer m_server;
};

class PoolLoopback : public CurlObjectTest {
 protected:
  PoolLoopback() {
    access.maxConnections = 1;
    access.occupiedTimeout = 900;
  }

  // One exchange on a connection of the pool.
  std::string exchange(const CloudProxyInfo& proxy, const std::string& url = PLAIN) {
    access.pool.setProxy(proxy);
    CurlObject* curl = access.pool.getCurl("user", "program");
    const std::string body = curl->perform(url, "{}", 1).second;
    access.pool.releaseCurl(curl);
    return body;
  }

  CloudCurlPoolAccess access;
};

}  // namespace

TEST_F(PoolLoopback, ReturnLeavesNothingOfTheLastReply) {
  HttpServer server([](const HttpRequest&) { return httpReply("200 OK", {"X-MRV-Secret: token"}, "{}"); });
  CurlObject* const curl = access.pool.getCurl("alice", "login");
  curl->setOpt(CURLOPT_VERBOSE, 1);
  curl->setOpt(CURLOPT_DEBUGDATA, static_cast<void*>(curl));
  curl->setOpt(CURLOPT_DEBUGFUNCTION, &CurlObject::debugCallback);
  curl->perform("http://" + server.address() + "/", "{}", 1);
  EXPECT_THAT(curl->lastHeaderLines(), testing::Contains("X-MRV-Secret: token\r\n"));
  EXPECT_THAT(curl->debugLines, testing::Not(IsEmpty()));
  access.pool.releaseCurl(curl);
  EXPECT_THAT(curl->lastHeaderLines(), IsEmpty());
  EXPECT_THAT(curl->debugLines, IsEmpty());
  EXPECT_EQ(access.pool.getCurl("bob", "login"), curl);
  EXPECT_THAT(curl->perform("http://" + server.address() + "/", "{}", 1), Pair(200, "{}"));
}

TEST_F(PoolLoopback, TunnelOfOneUserIsNeverTheNextOnes) {
  TellingProxy proxy;
  const CloudProxyInfo alice = proxyInfo(proxy.address(), "basic", "alice", "secret");
  const CloudProxyInfo bob = proxyInfo(proxy.address(), "basic", "bob", "other");
  EXPECT_EQ(exchange(alice), ALICE);
  EXPECT_EQ(exchange(bob), BOB);
  EXPECT_EQ(exchange(alice), ALICE);
  EXPECT_EQ(access.connections.size(), 1U) << "one connection served them all";
  EXPECT_THAT(proxy.opened(), ElementsAre(ALICE, BOB, ALICE));
  EXPECT_TRUE(proxy.server().waitForEnds(2, seconds(10))) << "the tunnels of before are closed";
}

TEST_F(PoolLoopback, TunnelOfTheSameUserIsUsedAgain) {
  TellingProxy proxy;
  const CloudProxyInfo alice = proxyInfo(proxy.address(), "basic", "alice", "secret");
  for (int i = 0; i < 3; ++i) EXPECT_EQ(exchange(alice), ALICE);
  EXPECT_EQ(proxy.server().connections(), 1);
}

TEST_F(PoolLoopback, TunnelOfAUserIsNotNobodys) {
  TellingProxy proxy(nullptr, true);
  EXPECT_EQ(exchange(proxyInfo(proxy.address(), "basic", "alice", "secret")), ALICE);
  EXPECT_EQ(exchange(proxyInfo(proxy.address())), "nobody");
  EXPECT_EQ(exchange(proxyInfo(proxy.address(), "basic", "bob", "other")), BOB);
  HttpServer direct([](const HttpRequest& request) { return httpReply("200 OK", {}, request.method()); });
  EXPECT_EQ(exchange(proxyInfo(""), "http://" + direct.address() + "/"), "POST");
  EXPECT_EQ(proxy.server().connections(), 3);
}

TEST_F(PoolLoopback, ConnectionThatIsOutKeepsItsProxy) {
  TellingProxy first;
  TellingProxy second;
  access.pool.setProxy(proxyInfo(first.address(), "basic", "alice", "secret"));
  CurlObject* curl = access.pool.getCurl("user", "program");
  access.pool.setProxy(proxyInfo(second.address(), "basic", "bob", "other"));
  EXPECT_THAT(curl->perform(PLAIN, "", 0), Pair(200, ALICE));
  access.pool.releaseCurl(curl);
  curl = access.pool.getCurl("user", "program");
  EXPECT_THAT(curl->perform(PLAIN, "", 0), Pair(200, BOB));
  EXPECT_EQ(first.server().connections(), 1);
}

TEST_F(PoolLoopback, ConnectionThatWasTakenAwayStillWorks) {
  TellingProxy proxy;
  testsupport::ManualClock clock;
  access.pool.setProxy(proxyInfo(proxy.address(), "basic", "alice", "secret"));
  CurlObject* curl = access.pool.getCurl("user", "program");
  EXPECT_THAT(curl->perform(PLAIN, "", 0), Pair(200, ALICE));
  clock.advance(seconds(1000));
  EXPECT_EQ(exchange(proxyInfo(proxy.address(), "basic", "bob", "other")), BOB) << "its place was free";
  EXPECT_THAT(curl->perform(PLAIN, "", 0), Pair(200, ALICE));
  EXPECT_EQ(proxy.server().connections(), 2);
  access.pool.releaseCurl(curl);
  EXPECT_TRUE(proxy.server().waitForEnds(1, seconds(10))) << "it went with its return";
}

TEST_F(PoolLoopback, CookiesAndHeadersStayWithTheConnection) {
  HttpServer server([](const HttpRequest& request) {
    return httpReply("200 OK", {"Set-Cookie: visits=1; Path=/"},
                     request.header("Cookie") + "|" + request.header("X-MRV-SRC") + "|" +
                         request.header("X-MORVANE-NATIVE-CLIENT") + "|" + request.header("Content-Type"));
  });
  const std::string url = "http://" + server.address() + "/";
  EXPECT_EQ(exchange(proxyInfo(""), url), "|QRS|1|application/json");
  EXPECT_EQ(exchange(proxyInfo(""), url), "visits=1|QRS|1|application/json");
  TellingProxy proxy;
  EXPECT_EQ(exchange(proxyInfo(proxy.address(), "basic", "alice", "secret")), ALICE);
  EXPECT_EQ(exchange(proxyInfo(""), url), "visits=1|QRS|1|application/json") << "also past another identity";
  access.pool.reapCurls();
  EXPECT_EQ(exchange(proxyInfo(""), url), "|QRS|1|application/json") << "a new connection knows nothing";
}

TEST_F(PoolLoopback, SessionGoesWithItsUser) {
  HttpServer server([](const HttpRequest& request) {
    return httpReply("200 OK",
                     {"Set-Cookie: .ASPXAUTH=deep; Path=/deep", "Set-Cookie: .ASPXAUTH=session; Path=/",
                      "Set-Cookie: visits=1; Path=/"},
                     request.header("Cookie"));
  });
  const std::string url = "http://" + server.address() + "/deep/page";
  access.pool.setProxy(proxyInfo(""));
  CurlObject* curl = access.pool.getCurl("alice", "login");
  curl->perform(url, "", 0);
  EXPECT_THAT(curl->perform(url, "", 0), Pair(200, ".ASPXAUTH=deep; .ASPXAUTH=session; visits=1"));
  access.pool.releaseCurl(curl);
  curl = access.pool.getCurl("bob", "login");
  EXPECT_THAT(curl->perform(url, "", 0), Pair(200, "visits=1"));
  curl->setCookie(".ASPXAUTH=bob;");
  access.pool.releaseCurl(curl);
  curl = access.pool.getCurl("carol", "login");
  EXPECT_THAT(curl->perform(url, "", 0), Pair(200, "visits=1"));
  EXPECT_EQ(curl->cookie(".ASPXAUTH", url), "deep") << "carol's own";
  access.pool.releaseCurl(curl);
}

TEST_F(PoolLoopback, ThreadsShareFourConnectionsWhileTheProxyChanges) {
  constexpr int THREADS = 8;
  constexpr int EXCHANGES = 12;
  const testsupport::TempFolder folder;
  const testsupport::Certificate certificate = testsupport::makeCertificate(folder.path(), "proxy", {});
  TellingProxy one(&certificate);
  TellingProxy two(&certificate);
  testsupport::ManualClock clock;
  access.maxConnections = 4;

  std::mutex turn;  // so that a hand-out is known to be that of the proxy set before it
  std::condition_variable returned;
  std::atomic<int> wrong{0};
  std::atomic<int> done{0};
  std::atomic<bool> over{false};
  const auto borrow = [&](const CloudProxyInfo& proxy) {
    std::unique_lock<std::mutex> lock(turn);
    for (;;) {
      access.pool.setProxy(proxy);
      try {
        return access.pool.getCurl(proxy.proxyUser, "test");
      } catch (const lumo::CloudConnException&) {
        returned.wait_for(lock, std::chrono::milliseconds(50));
      }
    }
  };
  const auto run = [&](int number) {
    for (int i = 0; i < EXCHANGES; ++i) {
      const bool isAlice = (number + i) % 2 == 0;
      const TellingProxy& through = (number + i / 2) % 2 == 0 ? one : two;
      CurlObject* curl = borrow(isAlice ? proxyInfo(through.address(), "basic", "alice", "secret")
                                        : proxyInfo(through.address(), "basic", "bob", "other"));
      curl->setOpt(CURLOPT_CAINFO, certificate.certificateFile);
      curl->setOpt(CURLOPT_TIMEOUT, 0);  // the clock runs ahead
      try {
        const auto reply = curl->perform(i % 3 == 0 ? PLAIN : SECURE, "{}", 1);
        if (reply.first != 200 || reply.second != (isAlice ? ALICE : BOB)) ++wrong;
      } catch (const lumo::CurlException& failure) {
        ADD_FAILURE() << failure.what();
      }
      {
        const std::lock_guard<std::mutex> lock(turn);
        access.pool.releaseCurl(curl);
        ++done;
      }
      returned.notify_all();
    }
  };
  std::vector<std::thread> threads;
  threads.reserve(THREADS + 1);
  for (int i = 0; i < THREADS; ++i) threads.emplace_back(run, i);
  // Takes idle connections away all the time, and at each quarter of the way those that are out.
  std::thread reaper([&] {
    for (int quarter = 1; !over;) {
      if (done >= quarter * THREADS * EXCHANGES / 4) {
        clock.advance(seconds(1000));
        ++quarter;
      }
      access.pool.reapCurls();
      static_cast<void>(access.pool.dump());
      std::this_thread::yield();
    }
  });
  for (std::thread& thread : threads) thread.join();
  over = true;
  reaper.join();

  EXPECT_EQ(wrong, 0);
  EXPECT_EQ(done, THREADS * EXCHANGES);
  EXPECT_EQ(access.occupiedCount, 0U);
  EXPECT_THAT(access.taken, IsEmpty());
  for (const TellingProxy* proxy : {&one, &two}) {
    EXPECT_THAT(proxy->opened(), Each(testing::AnyOf(ALICE, BOB)));
  }
}

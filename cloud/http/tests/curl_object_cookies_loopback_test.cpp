#include "cloud/http/tests/curl_memory.h"
#include "cloud/http/tests/curl_object_fixture.h"
#include "testsupport/http_server.h"

using testing::HasSubstr;
using testing::Not;
using testsupport::httpReply;
using testsupport::HttpRequest;
using testsupport::HttpServer;

namespace {

// Answers with the cookies that the path names: /set?LINE|LINE
class CookieServer {
 public:
  CookieServer()
      : m_server([this](const HttpRequest& request) {
          return httpReply("200 OK", request.target() == "/set" ? lines : std::vector<std::string>());
        }) {}

  std::string url(const std::string& path) const { return "http://" + m_server.address() + path; }
  // The Cookie header of a request made now.
  std::string cookieOf(CurlObject& object, const std::string& path = "/") const {
    object.perform(url(path), "", 0);
    return m_server.requests().back().header("Cookie");
  }

  std::vector<std::string> lines;

 private:
  HttpServer m_server;
};

}  // namespace

TEST_F(CurlObjectTest, CookiesOfRepliesComeBackAndStay) {
  CookieServer server;
  server.lines = {"Set-Cookie: session=1; path=/", "Set-Cookie: kept=2; path=/; HttpOnly; Max-Age=3600"};
  CurlObject object;
  EXPECT_EQ(server.cookieOf(object, "/set"), "");
  EXPECT_EQ(server.cookieOf(object), "session=1; kept=2");
}

TEST_F(CurlObjectTest, SetCookieWithAnEmptyEngineSendsTheCookie) {
  CookieServer server;
  CurlObject object;
  object.setCookie(".ASPXAUTH=token;");
  EXPECT_EQ(object.recordedOptions(), defaultsAnd({CURLOPT_COOKIE}));
  EXPECT_EQ(server.cookieOf(object), ".ASPXAUTH=token;");
}

TEST_F(CurlObjectTest, SetCookieTakesThePlaceOfTheSessionCookie) {
  CookieServer server;
  server.lines = {"Set-Cookie: other=1; path=/", "Set-Cookie: .ASPXAUTH=old; path=/; HttpOnly",
                  "Set-Cookie: last=3; path=/"};
  CurlObject object;
  server.cookieOf(object, "/set");
  EXPECT_EQ(server.cookieOf(object), ".ASPXAUTH=old; other=1; last=3");
  object.setCookie(".ASPXAUTH=new;");
  EXPECT_EQ(object.recordedOptions().count(CURLOPT_COOKIELIST), 1u);
  EXPECT_EQ(server.cookieOf(object), "other=1; last=3; .ASPXAUTH=new;");
}

TEST_F(CurlObjectTest, SetCookieTakesOnlyTheFirstSessionCookieAway) {
  CookieServer server;
  server.lines = {"Set-Cookie: .ASPXAUTH=deep; path=/set", "Set-Cookie: .ASPXAUTH=root; path=/"};
  CurlObject object;
  server.cookieOf(object, "/set");
  EXPECT_EQ(server.cookieOf(object, "/set"), ".ASPXAUTH=deep; .ASPXAUTH=root");
  server.lines.clear();
  object.setCookie("mine=1");
  EXPECT_EQ(server.cookieOf(object, "/set"), ".ASPXAUTH=root; mine=1");
}

TEST_F(CurlObjectTest, SetCookieLeavesCookiesOfOtherNamesAndLinesWithoutAValue) {
  CookieServer server;
  server.lines = {"Set-Cookie: .ASPXAUTH2=two; path=/", "Set-Cookie: .ASPXAUTH=; path=/"};
  CurlObject object;
  server.cookieOf(object, "/set");
  object.setCookie("mine=1");
  EXPECT_EQ(object.recordedOptions().count(CURLOPT_COOKIELIST), 0u);
  EXPECT_EQ(server.cookieOf(object), ".ASPXAUTH2=two; .ASPXAUTH=; mine=1");
}

TEST_F(CurlObjectTest, CookiesOutliveAChangeOfIdentity) {
  CookieServer server;
  server.lines = {"Set-Cookie: session=1; path=/", "Set-Cookie: kept=2; path=/; HttpOnly; Max-Age=3600",
                  "Set-Cookie: deep=3; path=/deep"};
  CurlObject object;
  server.cookieOf(object, "/set");
  object.setOpt(CURLOPT_USERPWD, "alice:secret");
  EXPECT_EQ(server.cookieOf(object), "session=1; kept=2");
  object.setOpt(CURLOPT_USERPWD, "bob:secret");
  EXPECT_EQ(server.cookieOf(object, "/deep"), "deep=3; session=1; kept=2");
}

TEST_F(CurlObjectTest, CookieOfAReplyIsReadByItsExactName) {
  CookieServer server;
  server.lines = {"Set-Cookie: .ASPXAUTH2=longer; path=/", "Set-Cookie: .aspxauth=lower; path=/",
                  "Set-Cookie: .ASPXAUT=shorter; path=/", "Set-Cookie: .ASPXAUTH=token==; path=/; HttpOnly; Secure"};
  CurlObject object;
  EXPECT_EQ(object.cookie(".ASPXAUTH", server.url("/")), "");
  server.cookieOf(object, "/set");
  EXPECT_EQ(object.cookie(".ASPXAUTH", server.url("/")), "token==");
  EXPECT_EQ(object.cookie(".ASPXAUTH2", server.url("/")), "longer");
  EXPECT_EQ(object.cookie(".ASPXAUTH3", server.url("/")), "");
  EXPECT_EQ(object.cookie("", server.url("/")), "");
}

// Netscape lines as the engine keeps them: domain, tail match, path, secure, expiry, name, value.
TEST_F(CurlObjectTest, OnlyCookiesForTheHostOfTheUrlCount) {
  const struct {
    const char *line, *url, *value;
  } rows[] = {
      {"pod.example.test\tFALSE\t/\tFALSE\t0\t.ASPXAUTH\town", "https://pod.example.test/security/sso?a=b", "own"},
      {"pod.example.test\tFALSE\t/\tFALSE\t0\t.ASPXAUTH\town", "https://user@POD.Example.test:8443/", "own"},
      {"#HttpOnly_pod.example.test\tFALSE\t/\tFALSE\t0\t.ASPXAUTH\town", "https://pod.example.test/", "own"},
      {".example.test\tTRUE\t/\tFALSE\t0\t.ASPXAUTH\tdomain", "https://pod.example.test/", "domain"},
      {".example.test\tTRUE\t/\tFALSE\t0\t.ASPXAUTH\tdomain", "https://example.test/", "domain"},
      {"conn.example.test\tFALSE\t/\tFALSE\t0\t.ASPXAUTH\tother", "https://pod.example.test/", ""},
      {".pod.example.test\tTRUE\t/\tFALSE\t0\t.ASPXAUTH\tother", "https://mypod.example.test/", ""},
      {"example.test\tFALSE\t/\tFALSE\t0\t.ASPXAUTH\tother", "https://pod.example.test/", ""},
      {".pod.example.test\tTRUE\t/\tFALSE\t0\t.ASPXAUTH\tother", "https://example.test/", ""},
      {"127.0.0.1\tFALSE\t/\tFALSE\t0\t.ASPXAUTH\taddress", "https://127.0.0.1:8443/", "address"},
      {"pod.example.test\tFALSE\t/\tFALSE\t0\t.ASPXAUTH\town", "", ""},
      {"pod.example.test\tFALSE\t/\tFALSE\t0\t.ASPXAUTH\town", "pod.example.test", ""},
      {"pod.example.test\tFALSE\t/\tFALSE\t0\t.ASPXAUTH\town", "://", ""},
  };
  for (const auto& row : rows) {
    CurlObject object;
    object.setOpt(CURLOPT_COOKIELIST, row.line);
    EXPECT_EQ(object.cookie(".ASPXAUTH", row.url), row.value) << row.line << " for " << row.url;
  }
  CurlObject object;
  object.setOpt(CURLOPT_COOKIELIST, rows[5].line);
  object.setOpt(CURLOPT_COOKIELIST, rows[0].line);
  EXPECT_EQ(object.cookie(".ASPXAUTH", rows[0].url), "own") << "another host's stands first";
}

TEST_F(CurlObjectTest, FirstCookieOfANameCounts) {
  CookieServer server;
  server.lines = {"Set-Cookie: .ASPXAUTH=deep; path=/set", "Set-Cookie: .ASPXAUTH=root; path=/"};
  CurlObject object;
  server.cookieOf(object, "/set");
  EXPECT_EQ(object.cookie(".ASPXAUTH", server.url("/")), "deep");
}

TEST_F(CurlObjectTest, CookieWithoutAValueIsPassedOverAndAValueEndsAtItsFirstWhiteSpace) {
  CookieServer server;
  server.lines = {"Set-Cookie: .ASPXAUTH=; path=/set", "Set-Cookie: .ASPXAUTH=a b c; path=/"};
  CurlObject object;
  server.cookieOf(object, "/set");
  EXPECT_EQ(object.cookie(".ASPXAUTH", server.url("/")), "a");
}

TEST_F(CurlObjectTest, CookieThatSetCookieTookAwayIsNotRead) {
  CookieServer server;
  server.lines = {"Set-Cookie: .ASPXAUTH=old; path=/"};
  CurlObject object;
  server.cookieOf(object, "/set");
  object.setCookie(".ASPXAUTH=new;");
  server.cookieOf(object);
  EXPECT_EQ(object.cookie(".ASPXAUTH", server.url("/")), "") << "one that is sent by hand is none of the engine's";
}

TEST_F(CurlObjectTest, ForgottenSessionIsGoneAndOtherCookiesStay) {
  struct Row {
    std::vector<std::string> lines;
    std::string kept;
  };
  const std::string session = "Set-Cookie: .ASPXAUTH=bob; path=/; HttpOnly";
  const Row rows[] = {
      {{session}, ""},
      {{"set-cookie:.ASPXAUTH=bob; path=/"}, ""},
      {{session, "Set-Cookie: .ASPXAUTH=deep; path=/set; Max-Age=60"}, ""},
      {{"Set-Cookie: other=1; path=/", session}, "other=1"},
      {{session, "SET-COOKIE: other=1; path=/"}, "other=1"},
      {{session, "Set-Cookie: .ASPXAUTH2=1; path=/"}, ".ASPXAUTH2=1"},
      {{session, "Set-Cookie: .aspxauth=1; path=/"}, ".aspxauth=1"},
      {{"Set-Cookie: .ASPXAUTH=; path=/"}, ".ASPXAUTH="},
      {{}, ""},
  };
  for (const Row& row : rows) {
    for (const bool hasOneOfItsOwn : {false, true}) {
      CookieServer server;
      server.lines = row.lines;
      CurlObject object;
      server.cookieOf(object, "/set");
      if (hasOneOfItsOwn) object.setCookie("mine=1");
      object.forgetSession();
      server.lines.clear();
      EXPECT_EQ(server.cookieOf(object, "/set"), row.kept);
      EXPECT_EQ(object.cookie(".ASPXAUTH", server.url("/")), "");
    }
  }
}

TEST_F(CurlObjectTest, EverySessionIsForgottenAndWhatCameLaterStays) {
  CookieServer server;
  CurlObject object;
  for (const char* cookie : {"Set-Cookie: .ASPXAUTH=1; path=/", "Set-Cookie: .ASPXAUTH=2; path=/",
                             "Set-Cookie: a=b; path=/", "Set-Cookie: .ASPXAUTH=3; path=/"}) {
    server.lines = {cookie};
    server.cookieOf(object, "/set");
    object.setOpt(CURLOPT_USERPWD, std::string("alice:") + cookie);
    server.cookieOf(object);
    object.forgetSession();
    EXPECT_THAT(server.cookieOf(object), Not(HasSubstr(".ASPXAUTH"))) << cookie;
  }
  EXPECT_EQ(server.cookieOf(object), "a=b");
}

TEST_F(CurlObjectTest, CookieGivenByHandOutlivesTheSession) {
  CookieServer server;
  server.lines = {"Set-Cookie: .ASPXAUTH=bob; path=/"};
  CurlObject object;
  object.setOpt(CURLOPT_COOKIELIST, "Set-Cookie: given=1; domain=127.0.0.1; path=/");
  server.cookieOf(object, "/set");
  object.forgetSession();
  EXPECT_EQ(server.cookieOf(object), "given=1");
}

// libcurl gives no list of its cookies then, as if it had none.
TEST_F(CurlObjectTest, SessionIsForgottenWithoutMemoryForTheListToo) {
  const auto forget = [] {
    const CurlMemory memory;
    CookieServer server;
    server.lines = {"Set-Cookie: other=1; path=/", "Set-Cookie: .ASPXAUTH=bob; path=/"};
    CurlObject object;
    server.cookieOf(object, "/set");
    CurlMemory::isGone = true;
    object.forgetSession();
    CurlMemory::isGone = false;
    std::_Exit(object.cookie(".ASPXAUTH", server.url("/")).empty() ? 7 : 8);
  };
  EXPECT_EXIT(forget(), testing::ExitedWithCode(7), "");
}

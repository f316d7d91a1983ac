// What a login knew is nowhere in the memory that it gives back.
#include <malloc.h>
#include <string.h>

#include <cstdlib>
#include <new>

#include "base/include/wipe.h"
#include "cloud/login/tests/cloud_auth_v0_login.h"
#include "cloud/login/tests/cloud_auth_v1_login.h"
#include "cloud/login/tests/cloud_auth_v1s_fixture.h"
#include "testsupport/sanitizers.h"

#ifndef FERRO_SANITIZED

namespace {

// Looks for texts in all blocks that this thread gives back, from construction to destruction; each text is longer than
// what a std::string holds in itself.
class MemoryWatch {
 public:
  // No copies: they would be given back too.
  explicit MemoryWatch(std::vector<const std::string*> secrets) : m_secrets(std::move(secrets)) { inForce = this; }
  ~MemoryWatch() { inForce = nullptr; }
  MemoryWatch(const MemoryWatch&) = delete;
  MemoryWatch& operator=(const MemoryWatch&) = delete;

  // One of the texts that were found, null where there was none.
  const char* found() const { return m_found; }

  static void look(const void* block) noexcept {
    if (inForce == nullptr || block == nullptr) return;
    const std::size_t size = malloc_usable_size(const_cast<void*>(block));
    for (const std::string* secret : inForce->m_secrets) {
      // Its first byte is gone where a text was merely emptied.
      if (memmem(block, size, secret->data() + 1, secret->size() - 1) != nullptr) inForce->m_found = secret->c_str();
    }
  }

 private:
  static thread_local MemoryWatch* inForce;

  const std::vector<const std::string*> m_secrets;
  const char* m_found = nullptr;
};
thread_local MemoryWatch* MemoryWatch::inForce = nullptr;

}  // namespace

// In place of the library's. Memory comes as zeros: what somebody else left in it is not ours.
void* operator new(std::size_t size) {
  void* const block = std::calloc(1, size == 0 ? 1 : size);
  if (block == nullptr) throw std::bad_alloc();
  return block;
}
void operator delete(void* block) noexcept {
  MemoryWatch::look(block);
  std::free(block);
}
void operator delete(void* block, std::size_t) noexcept { operator delete(block); }

namespace {

using v1stest::V1STest;

// Texts of the test's own, so that it gives none of them back itself.
const std::string SECRET = "correct horse battery staple";
const std::string CODE = "code-0123456789-abcdefghijkl";
const std::string OF_MACHINE = "machine-0123456789-abcdefghi";
const std::string OF_USER = "user-0123456789-abcdefghijkl";

// At TRACE replies stand in the log, and so in the memory of who writes it.
class Quiet {
  const testsupport::LogCapture m_log{"DEBUG"};
};

}  // namespace

TEST(MemoryWatch, SeesWhatIsGivenBack) {
  const MemoryWatch watch({&SECRET});
  std::string text(SECRET);
  wipe(text);
  text.shrink_to_fit();
  EXPECT_EQ(watch.found(), nullptr);
  text = SECRET;
  text.clear();
  text.shrink_to_fit();
  EXPECT_STREQ(watch.found(), SECRET.c_str());
}

TEST_F(V0Login, PasswordAndCodesAreWiped) {
  const Quiet quiet;
  script({policy(passwordAndMore()), success(), success(), success(),
          success(R"({"status":"Move","code":")" + CODE + "\"}"), refusal(), success()});
  const MemoryWatch watch({&SECRET, &CODE});
  EXPECT_EQ(client->startAuthentication(), AUTH_NEXT_CHALLENGE);
  EXPECT_EQ(advance("UP", ACTION_ANSWER, SECRET), AUTH_NEXT_CHALLENGE);
  EXPECT_EQ(advance("SMS", ACTION_POLL), AUTH_FAILED);
  EXPECT_EQ(advance("SMS", ACTION_ANSWER, CODE), AUTH_DONE);
  client.reset();
  EXPECT_EQ(watch.found(), nullptr) << watch.found();
}

TEST_F(V1Login, AnswersAreWiped) {
  const Quiet quiet;
  script({policy(), summary("StartNextChallenge"), cut(), summary("LoginSuccess")});
  const MemoryWatch watch({&SECRET, &CODE});
  EXPECT_EQ(client->startAuthentication(), AUTH_NEXT_CHALLENGE);
  EXPECT_EQ(advance("m-up", ACTION_ANSWER, SECRET), AUTH_NEXT_CHALLENGE);
  EXPECT_THROW(advance("m-sms", ACTION_ANSWER, CODE), lumo::CurlException);
  EXPECT_EQ(advance("m-sms", ACTION_ANSWER, CODE), AUTH_DONE);
  client.reset();
  EXPECT_EQ(watch.found(), nullptr) << watch.found();
}

TEST_F(V1STest, CodeAndCookiesAreWiped) {
  const Quiet quiet;
  connector.script({v1stest::code(CODE)});
  platform.script({v1stest::session(OF_MACHINE), v1stest::session(OF_USER), v1stest::unauthorized(), v1stest::success(),
                   v1stest::success()});
  const MemoryWatch watch({&CODE, &OF_MACHINE, &OF_USER});
  EXPECT_EQ(client->startAuthentication(), AUTH_FAILED);
  client->setCookie(COOKIE_USER, OF_USER);
  EXPECT_EQ(client->startAuthentication(), AUTH_DONE);
  client->setCookie(COOKIE_USER, "none");
  EXPECT_EQ(client->startAuthentication(), AUTH_DONE);
  client.reset();
  EXPECT_EQ(watch.found(), nullptr) << watch.found();
}

// A connection that the pool takes away from its holder goes with all that it knew.
TEST_F(V1STest, ConnectionThatWasTakenAwayIsWipedToo) {
  const Quiet quiet;
  platform.script({v1stest::session(OF_MACHINE)});
  const MemoryWatch watch({&OF_MACHINE});
  EXPECT_EQ(client->sso(CODE), 1);
  access.occupiedTimeout = -1;
  access.pool.reapCurls();
  EXPECT_EQ(access.taken.size(), 1U);
  client.reset();
  EXPECT_EQ(access.taken.size(), 0U);
  EXPECT_EQ(watch.found(), nullptr) << watch.found();
}

#endif

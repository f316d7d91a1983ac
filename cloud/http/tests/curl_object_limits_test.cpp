// The limits of an exchange, without one.
#include <dlfcn.h>

#include <cstdarg>
#include <limits>
#include <map>

#include "cloud/http/curl_object_callbacks.h"
#include "cloud/http/exchange_limits.h"
#include "cloud/http/tests/curl_object_fixture.h"
#include "cloud/include/exchange_stop.h"
#include "testsupport/manual_clock.h"

using std::chrono::milliseconds;
using std::chrono::seconds;

namespace {

// What libcurl was told last, by option.
std::map<CURLoption, void*>& told() {
  static std::map<CURLoption, void*> values;
  return values;
}

size_t giveHeader(CurlObject& object, std::string line) {
  return CurlCallbacks::header(line.data(), 1, line.size(), &object);
}

void giveTrace(CurlObject& object, std::string text) {
  CurlObject::debugCallback(object.handle, CURLINFO_TEXT, text.data(), text.size(), &object);
}

bool isToEnd(CurlObject& object) { return CurlCallbacks::progress(&object, 0, 0, 0, 0) != 0; }

// An exchange that ends before it has a connection.
void beginExchange(CurlObject& object) { EXPECT_THROW(object.perform("", "", 0), lumo::CurlException); }

class ExchangeLimitsTest : public CurlObjectTest {
 protected:
  ~ExchangeLimitsTest() override { lumo::resumeExchanges(); }

  // The time after which an exchange that begins now is to end, to the millisecond.
  bool lastsFor(CurlObject& object, milliseconds time) {
    beginExchange(object);
    clock.advance(time - milliseconds(1));
    const bool early = isToEnd(object);
    clock.advance(milliseconds(1));
    return !early && isToEnd(object);
  }

  testsupport::ManualClock clock;
};

}  // namespace

#undef curl_easy_setopt
// It stands before the library's own. libcurl fixes its types: an enumeration stands in front of the dots, which clang
// warns of in C++.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wvarargs"
extern "C" CURLcode curl_easy_setopt(CURL* handle, CURLoption option, ...) {
  static auto* const real = reinterpret_cast<decltype(curl_easy_setopt)*>(dlsym(RTLD_NEXT, "curl_easy_setopt"));
  std::va_list arguments;
  va_start(arguments, option);
  void* const value = va_arg(arguments, void*);  // long, curl_off_t and every pointer are of this size
  va_end(arguments);
  if (option == CURLOPT_TIMEOUT) told()[option] = value;
  return real(handle, option, value);
}
#pragma GCC diagnostic pop

TEST_F(ExchangeLimitsTest, ThirtySecondsAreTheTimeOfLibcurlAndOfTheDeadline) {
  CurlObject object;
  EXPECT_EQ(reinterpret_cast<long>(told().at(CURLOPT_TIMEOUT)), 30);
  EXPECT_TRUE(lastsFor(object, seconds(30)));
  EXPECT_TRUE(lastsFor(object, seconds(30))) << "each time";
}

TEST_F(ExchangeLimitsTest, TimeIsTheOneThatWasSetLast) {
  CurlObject object;
  object.setOpt(CURLOPT_TIMEOUT, 5);
  EXPECT_TRUE(lastsFor(object, seconds(5)));
  object.setOpt(CURLOPT_TIMEOUT_MS, 1500);
  EXPECT_TRUE(lastsFor(object, milliseconds(1500)));
  EXPECT_THROW(object.setOpt(CURLOPT_TIMEOUT, -1), lumo::CurlException);
  EXPECT_TRUE(lastsFor(object, milliseconds(1500)));
  object.setOpt(CURLOPT_CONNECTTIMEOUT, 1);
  EXPECT_TRUE(lastsFor(object, milliseconds(1500)));
}

TEST_F(ExchangeLimitsTest, NoTimeIsNoLimitAndTheLongestTimeIsOne) {
  CurlObject object;
  object.setOpt(CURLOPT_TIMEOUT, 0);
  beginExchange(object);
  clock.advance(std::chrono::hours(100000));
  EXPECT_FALSE(isToEnd(object));
  object.setOpt(CURLOPT_TIMEOUT_MS, std::numeric_limits<long>::max());
  beginExchange(object);
  EXPECT_FALSE(isToEnd(object));
  object.clearOpt(CURLOPT_TIMEOUT_MS);
  beginExchange(object);
  clock.advance(std::chrono::hours(100000));
  EXPECT_FALSE(isToEnd(object));
}

TEST_F(ExchangeLimitsTest, FirstReasonIsTheOneThatIsTold) {
  ExchangeLimits limits;
  limits.setTime(seconds(1));
  limits.begin();
  EXPECT_FALSE(limits.isOver());
  EXPECT_EQ(limits.codeFor(CURLE_GOT_NOTHING), CURLE_GOT_NOTHING);
  clock.advance(seconds(1));
  EXPECT_TRUE(limits.isOver());
  lumo::stopExchanges();
  EXPECT_TRUE(limits.isOver());
  EXPECT_EQ(limits.codeFor(CURLE_ABORTED_BY_CALLBACK), CURLE_OPERATION_TIMEDOUT);
  EXPECT_EQ(limits.codeFor(CURLE_OK), CURLE_OK);
  limits.begin();
  EXPECT_TRUE(limits.isOver());
  EXPECT_EQ(limits.codeFor(CURLE_RECV_ERROR), CURLE_ABORTED_BY_CALLBACK);
  lumo::resumeExchanges();
  limits.begin();
  EXPECT_FALSE(limits.isOver());
}

TEST_F(ExchangeLimitsTest, HeaderLinesFillTheirLimitToTheByte) {
  CurlObject object;
  const size_t half = ExchangeLimits::MAX_HEADER_BYTES / 32;
  for (int i = 0; i < 32; ++i) EXPECT_EQ(giveHeader(object, std::string(half, 'x')), half);
  EXPECT_FALSE(isToEnd(object));
  EXPECT_EQ(giveHeader(object, "x"), 0U);
  EXPECT_TRUE(isToEnd(object)) << "by the failure that is kept";
  EXPECT_EQ(object.lastHeaderLines().size(), 32U);
}

TEST_F(ExchangeLimitsTest, DroppedHeaderLinesCountToo) {
  CurlObject object;
  EXPECT_EQ(giveHeader(object, std::string(ExchangeLimits::MAX_HEADER_BYTES, 'x')), ExchangeLimits::MAX_HEADER_BYTES);
  EXPECT_EQ(giveHeader(object, "x"), 0U);
}

TEST_F(ExchangeLimitsTest, TraceEndsWithALineThatSaysSo) {
  CurlObject object;
  const std::string text(1 << 20, 'x');
  for (int i = 0; i < 20; ++i) giveTrace(object, text);
  giveTrace(object, "short");
  ASSERT_EQ(object.debugLines.size(), 8U);
  EXPECT_EQ(object.debugLines[6], "*" + text);
  EXPECT_EQ(object.debugLines[7], "*The trace ends here: it has reached its limit.\n");
  EXPECT_FALSE(isToEnd(object)) << "the exchange goes on";
  object.forgetExchange();
  giveTrace(object, "another");
  EXPECT_THAT(object.debugLines, testing::ElementsAre("*another"));
}

TEST_F(ExchangeLimitsTest, ManyShortLinesFillTheTraceToo) {
  CurlObject object;
  for (size_t i = 0; i < ExchangeLimits::MAX_TRACE_BYTES / 8; ++i) giveTrace(object, "x");
  EXPECT_LT(object.debugLines.size(), ExchangeLimits::MAX_TRACE_BYTES / 32);
}

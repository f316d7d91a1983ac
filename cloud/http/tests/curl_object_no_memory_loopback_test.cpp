// Memory that ends while a reply's header lines or the trace are kept.
#include <sys/resource.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <new>
#include <set>

#include "cloud/http/tests/curl_object_fixture.h"
#include "testsupport/http_server.h"
#include "testsupport/process.h"
#include "testsupport/sanitizers.h"

#ifndef FERRO_SANITIZED

using testsupport::httpReply;
using testsupport::HttpRequest;
using testsupport::HttpServer;

namespace {

// Header lines are this long, so that their memory is a block of its own.
constexpr size_t LINE = 60000;

// How many blocks of a line's length stay free: versions of libcurl differ in how many copies they make of a line
// before they hand it out.
int freeBlocks = 0;

// Every other piece of memory that this process may have is taken.
void takeAllMemory() {
  void* blocks[8] = {};
  for (int i = 0; i < freeBlocks; ++i) blocks[i] = std::malloc(LINE + 2000);
  const rlimit limit{size_t{512} << 20U, RLIM_INFINITY};
  setrlimit(RLIMIT_AS, &limit);
  for (size_t size = size_t{64} << 20U; size >= 16; size /= 2) {
    while (std::malloc(size) != nullptr) {
    }
  }
  for (int i = 0; i < freeBlocks; ++i) std::free(blocks[i]);
}

bool isLastLine(curl_infotype type, const char* data) {
  return type == CURLINFO_HEADER_IN && std::strncmp(data, "X-Last:", 7) == 0;
}

// libcurl tells the trace of a header line before it hands the line out.
int withoutMemoryForTheLine(CURL*, curl_infotype type, char* data, size_t, void*) {
  if (isLastLine(type, data)) takeAllMemory();
  return 0;
}

int withoutMemoryForTheTrace(CURL* handle, curl_infotype type, char* data, size_t size, void* object) {
  if (isLastLine(type, data)) takeAllMemory();
  return CurlObject::debugCallback(handle, type, data, size, object);
}

enum Outcome { Succeeded, OtherFailure, RawFailure, SaidInWords };

class NoMemory : public CurlObjectTest {
 protected:
  // What an exchange ends with in a process of its own, for each number of free blocks. The words are compared where
  // there is no memory.
  std::set<int> outcomes(CurlObject::DebugFunction callback, const char* words) {
    std::set<int> all;
    for (freeBlocks = 0; freeBlocks < 5; ++freeBlocks) {
      all.insert(testsupport::runInChild([&]() -> int {
                   CurlObject object;
                   object.setOpt(CURLOPT_VERBOSE, 1);
                   object.setOpt(CURLOPT_DEBUGDATA, static_cast<void*>(&object));
                   object.setOpt(CURLOPT_DEBUGFUNCTION, callback);
                   try {
                     object.perform("http://" + server.address() + "/", "", 0);
                   } catch (const lumo::CurlException& failure) {
                     _exit(std::strcmp(failure.what(), words) == 0 ? SaidInWords : OtherFailure);
                   } catch (const std::bad_alloc&) {
                     _exit(RawFailure);
                   }
                   _exit(Succeeded);
                 }).status);
    }
    return all;
  }

  HttpServer server{[](const HttpRequest&) {
    return httpReply("200 OK", {"X-First: " + std::string(LINE, 'x'), "X-Last: " + std::string(LINE, 'x')});
  }};
};

}  // namespace

// Between libcurl's own failure and success lies that of the callback.
TEST_F(NoMemory, ForAHeaderLineIsSaidInWords) {
  const std::set<int> seen = outcomes(&withoutMemoryForTheLine, "Not enough memory for curl header lines");
  EXPECT_EQ(seen.count(SaidInWords), 1U) << testing::PrintToString(seen);
  EXPECT_EQ(seen.count(RawFailure), 0U);
  EXPECT_LE(*seen.rbegin(), SaidInWords);
}

TEST_F(NoMemory, ForTheTraceIsSaidInWords) {
  const std::set<int> seen = outcomes(&withoutMemoryForTheTrace, "Not enough memory for curl trace");
  EXPECT_EQ(seen.count(SaidInWords), 1U) << testing::PrintToString(seen);
  EXPECT_EQ(seen.count(RawFailure), 0U);
  EXPECT_LE(*seen.rbegin(), SaidInWords);
}

#endif

#include "cloud/http/curl_object_callbacks.h"

#include <string.h>
#include <sys/uio.h>
#include <unistd.h>

#include "cloud/http/tests/curl_object_fixture.h"
#include "testsupport/process_memory.h"
#include "testsupport/sanitizers.h"

using testing::ElementsAre;
using testing::IsEmpty;

namespace {

size_t giveHeader(CurlObject& object, std::string line) {
  return CurlCallbacks::header(line.data(), 1, line.size(), &object);
}

}  // namespace

TEST_F(CurlObjectTest, HeaderLinesAreKeptWithTheirLineEnding) {
  CurlObject object;
  std::string line = "Set-Cookie: a=b\r\n";
  EXPECT_EQ(CurlCallbacks::header(line.data(), line.size(), 1, &object), line.size());
  EXPECT_THAT(object.lastHeaderLines(), ElementsAre(line));
}

TEST_F(CurlObjectTest, HeaderLineOverTheLimitIsDroppedSilently) {
  CurlObject object;
  EXPECT_EQ(giveHeader(object, std::string(102401, 'x')), 102401u);
  EXPECT_THAT(object.lastHeaderLines(), IsEmpty());
  EXPECT_EQ(giveHeader(object, std::string(102400, 'x')), 102400u);
  EXPECT_THAT(object.lastHeaderLines(), ElementsAre(std::string(102400, 'x')));
}

TEST_F(CurlObjectTest, HeaderCallbackWithoutDataOrObjectStopsNothing) {
  CurlObject object;
  std::string line = "x";
  EXPECT_EQ(CurlCallbacks::header(nullptr, 2, 3, &object), 6u);
  EXPECT_EQ(CurlCallbacks::header(line.data(), 1, 1, nullptr), 1u);
  EXPECT_THAT(object.lastHeaderLines(), IsEmpty());
}

TEST_F(CurlObjectTest, DebugCallbackMarksDirections) {
  CurlObject object;
  std::string text = "some text\n";
  for (int type = CURLINFO_TEXT; type < CURLINFO_END; ++type) {
    EXPECT_EQ(
        CurlObject::debugCallback(object.handle, static_cast<curl_infotype>(type), text.data(), text.size(), &object),
        0);
  }
  EXPECT_THAT(object.debugLines, ElementsAre("*some text\n", "<some text\n", ">some text\n", "<some text\n",
                                             ">some text\n", "<some text\n", ">some text\n"));
}

TEST_F(CurlObjectTest, DebugCallbackIgnoresOtherTypesAndMissingData) {
  CurlObject object;
  std::string text = "x";
  EXPECT_EQ(CurlObject::debugCallback(object.handle, CURLINFO_END, text.data(), 1, &object), 0);
  EXPECT_EQ(CurlObject::debugCallback(object.handle, CURLINFO_TEXT, nullptr, 1, &object), 0);
  EXPECT_EQ(CurlObject::debugCallback(object.handle, CURLINFO_TEXT, text.data(), 1, nullptr), 0);
  EXPECT_THAT(object.debugLines, IsEmpty());
}

TEST_F(CurlObjectTest, DebugTextEndsAtItsFirstZeroByteAndNeverBehindItsSize) {
  CurlObject object;
  std::string text("ab\0cd", 5);
  CurlObject::debugCallback(object.handle, CURLINFO_TEXT, text.data(), 5, &object);
  std::vector<char> unterminated = {'x', 'y', 'z'};
  CurlObject::debugCallback(object.handle, CURLINFO_TEXT, unterminated.data(), 3, &object);
  EXPECT_THAT(object.debugLines, ElementsAre("*ab", "*xyz"));
}

#ifndef FERRO_SANITIZED
TEST_F(CurlObjectTest, BodyIsWipedBeforeItsMemoryIsGivenBack) {
  using testsupport::RARE_LENGTH;
  CurlObject object;
  // The first bytes of memory that was given back are the allocator's.
  std::string beginning(64, 'x');
  CurlCallbacks::write(beginning.data(), 1, beginning.size(), &object);
  char body[RARE_LENGTH];
  for (unsigned i = 0; i < RARE_LENGTH; ++i) body[i] = testsupport::rareCharacter(i);
  EXPECT_EQ(CurlCallbacks::write(body, 1, RARE_LENGTH, &object), size_t{RARE_LENGTH});
  const char* place = nullptr;
  for (const testsupport::Mapping& mapping : testsupport::mappings()) {
    if (mapping.name != "[heap]") continue;
    place = static_cast<const char*>(
        memmem(reinterpret_cast<const void*>(mapping.start), mapping.end - mapping.start, body, RARE_LENGTH));
  }
  ASSERT_NE(place, nullptr);
  object.forgetExchange();
  // By the kernel: what stands there is no longer this program's to read.
  const iovec here{body, RARE_LENGTH};
  const iovec there{const_cast<char*>(place), RARE_LENGTH};
  ASSERT_EQ(process_vm_readv(getpid(), &here, 1, &there, 1, 0), ssize_t{RARE_LENGTH});
  EXPECT_EQ(std::string(body, RARE_LENGTH), std::string(RARE_LENGTH, '\0'));
}
#endif

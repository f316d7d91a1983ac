#include "quill/rpc_frame.h"

#include <gtest/gtest.h>

#include <limits>

#include "base/include/exceptions.h"

namespace {

using lumo::MAX_FRAME;
using lumo::rpcFrame;
using lumo::RpcFrameReader;

std::string header(std::size_t length) {
  std::string bytes;
  for (unsigned shift : {24U, 16U, 8U, 0U}) bytes += static_cast<char>(length >> shift & 0xffU);
  return bytes;
}

std::string refusalOf(const std::string& bytes) {
  RpcFrameReader reader;
  try {
    reader.feed(bytes.data(), bytes.size());
    reader.next();
  } catch (const lumo::BadDataException& failure) {
    return failure.what();
  }
  return "taken";
}

TEST(RpcFrame, IsBigEndianLengthAndContent) { EXPECT_EQ(rpcFrame("{}"), std::string("\0\0\0\2{}", 6)); }

TEST(RpcFrame, FedByteByByteComesOutWhenComplete) {
  const std::string bytes = rpcFrame("first") + rpcFrame("second");
  RpcFrameReader reader;
  std::vector<std::string> contents;
  for (const char byte : bytes) {
    reader.feed(&byte, 1);
    while (auto content = reader.next()) contents.push_back(*content);
  }
  EXPECT_EQ(contents, (std::vector<std::string>{"first", "second"}));
  EXPECT_TRUE(reader.empty());
}

TEST(RpcFrame, SeveralInOneFeedComeOutInOrder) {
  const std::string bytes = rpcFrame("a") + rpcFrame("b") + rpcFrame("c").substr(0, 4);
  RpcFrameReader reader;
  reader.feed(bytes.data(), bytes.size());
  EXPECT_EQ(reader.next(), "a");
  EXPECT_EQ(reader.next(), "b");
  EXPECT_EQ(reader.next(), std::nullopt);
  EXPECT_FALSE(reader.empty());
}

TEST(RpcFrame, OfOneMebibyteIsTaken) {
  const std::string content(MAX_FRAME, 'x');
  const std::string bytes = rpcFrame(content);
  RpcFrameReader reader;
  reader.feed(bytes.data(), bytes.size());
  EXPECT_EQ(reader.next(), content);
}

TEST(RpcFrame, OfAnyOtherLengthIsRefusedByItsHeader) {
  EXPECT_EQ(refusalOf(header(MAX_FRAME + 1)), "RPC frame of 1048577 bytes, allowed are 1 to 1048576");
  EXPECT_EQ(refusalOf(header(0)), "RPC frame of 0 bytes, allowed are 1 to 1048576");
  EXPECT_EQ(refusalOf("\xff\xff\xff\xff"), "RPC frame of 4294967295 bytes, allowed are 1 to 1048576");
}

TEST(RpcFrame, OfAWrongLengthBehindAGoodOneIsRefusedOnceReached) {
  const std::string bytes = rpcFrame("good") + header(0);
  RpcFrameReader reader;
  reader.feed(bytes.data(), bytes.size());
  EXPECT_EQ(reader.next(), "good");
  EXPECT_THROW(reader.next(), lumo::BadDataException);
}

TEST(RpcFrame, IsNotMadeOfAnEmptyOrOversizeContent) {
  EXPECT_THROW(rpcFrame(""), lumo::BadDataException);
  EXPECT_THROW(rpcFrame(std::string(MAX_FRAME + 1, 'x')), lumo::BadDataException);
}

}  // namespace

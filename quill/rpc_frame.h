// Frames of the local RPC: a length of four bytes, big-endian, and that many bytes of JSON.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>

namespace lumo {

inline constexpr std::size_t MAX_FRAME = std::size_t{1024} * 1024;

// Takes bytes as they come and gives out whole frames; what it gave out it has wiped. One thread.
class RpcFrameReader {
 public:
  RpcFrameReader() = default;
  ~RpcFrameReader();
  RpcFrameReader(const RpcFrameReader&) = delete;
  RpcFrameReader& operator=(const RpcFrameReader&) = delete;

  // Throws BadDataException for a frame longer than MAX_FRAME or empty; nothing of that size is allocated.
  void feed(const char* bytes, std::size_t size);
  // The next whole frame's content, empty when none is complete yet.
  std::optional<std::string> next();
  // Is nothing waiting, not even the beginning of a frame?
  bool empty() const { return m_buffer.empty(); }

 private:
  std::string m_buffer;
};

// The frame of a content. Throws BadDataException when it is empty or longer than MAX_FRAME.
std::string rpcFrame(const std::string& content);

}  // namespace lumo

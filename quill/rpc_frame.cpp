#include "quill/rpc_frame.h"

#include "base/include/exceptions.h"

namespace lumo {
namespace {

constexpr std::size_t HEADER = 4;

std::size_t lengthAt(const std::string& buffer) {
  std::size_t length = 0;
  for (std::size_t i = 0; i < HEADER; ++i) length = length << 8U | static_cast<unsigned char>(buffer[i]);
  return length;
}

void checkLength(std::size_t length) {
  if (length == 0 || length > MAX_FRAME) {
    LUMO_THROW(BadDataException, -1, "RPC frame of %zu bytes, allowed are 1 to %zu", length, MAX_FRAME);
  }
}

}  // namespace

void RpcFrameReader::feed(const char* bytes, std::size_t size) {
  m_buffer.append(bytes, size);
  if (m_buffer.size() >= HEADER) checkLength(lengthAt(m_buffer));
}

std::optional<std::string> RpcFrameReader::next() {
  if (m_buffer.size() < HEADER) return std::nullopt;
  const std::size_t length = lengthAt(m_buffer);
  checkLength(length);
  if (m_buffer.size() < HEADER + length) return std::nullopt;
  std::string content = m_buffer.substr(HEADER, length);
  m_buffer.erase(0, HEADER + length);
  return content;
}

std::string rpcFrame(const std::string& content) {
  checkLength(content.size());
  std::string frame;
  for (unsigned shift = 32; shift != 0;) {
    shift -= 8;
    frame += static_cast<char>(content.size() >> shift & 0xffU);
  }
  return frame + content;
}

}  // namespace lumo

#pragma once

#include <cstdint>

// A block of bytes owned by the host: whole-file reads, header and record buffers, and the HDB and
// signature data that a load receives. Operations are in slot order.
class CBuffer {
 public:
  virtual ~CBuffer() = default;
  virtual uint8_t* Data() = 0;  // slot 0: the first byte (may be null when the size is 0)
  virtual uint64_t Size() = 0;  // slot 1: byte count
  virtual bool Empty() = 0;     // slot 2: true when there is nothing
};

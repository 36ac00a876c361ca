// Memory for body bytes on their way to script as external buffers.
//
// A load writes its body into blocks of kBlockBytes, one slice after another,
// each slice the bytes of one buffer handed to script. A block goes back to a
// pool once nothing holds it: neither the writer nor a slice whose buffer
// script has not yet let go of. Script lets go only when its garbage
// collector runs, which for buffers it drops at once is roughly every 64 MiB
// of them; so without the pool every buffer of a long download would be
// fresh memory, and the page faults that fill it in cost more than the copy.
// Slices of one block sit end to end, so a slice takes the bytes it holds
// and not a whole block, however early script takes it.
#ifndef ARKWEB_BODY_BLOCKS_H
#define ARKWEB_BODY_BLOCKS_H

#include <cstddef>
#include <memory>

namespace arkweb_host {

class BodyBlock {
 public:
  static constexpr size_t kBlockBytes = 1 << 20;
  // Blocks the pool keeps for reuse: about what script holds between two
  // collections, so a steady download takes nothing new.
  static constexpr size_t kPooledBlocks = 64;

  // A block with room for at least `bytes`: a pooled one when `bytes` fits
  // in kBlockBytes and the pool has one.
  static std::shared_ptr<BodyBlock> take(size_t bytes);
  // Blocks in the pool now.
  static size_t pooled();

  explicit BodyBlock(size_t capacity) : bytes_(new char[capacity]), capacity_(capacity) {}

  char* data() { return bytes_.get(); }
  size_t capacity() const { return capacity_; }
  size_t room() const { return capacity_ - used_; }
  size_t used() const { return used_; }

 private:
  friend class BodyWriter;
  friend struct BodyBlockPool;

  std::unique_ptr<char[]> bytes_;
  size_t capacity_;
  size_t used_ = 0;  // written by the block's one writer
};

// Bytes of one buffer for script, in a block it keeps alive.
struct BodySlice {
  std::shared_ptr<BodyBlock> block;
  size_t offset = 0;
  size_t size = 0;

  char* data() const { return block->data() + offset; }
};

// Writes one load's body into blocks. Not thread-safe: the load's lock
// guards it and the slices it grows.
class BodyWriter {
 public:
  // Appends to `slice` when it is the last slice of the current block and
  // the block has room; false, and nothing written, otherwise.
  bool extend(BodySlice& slice, const char* data, size_t size);
  // A new slice holding a copy of the bytes: in the current block when it
  // has room, else in a new one.
  BodySlice write(const char* data, size_t size);

 private:
  // Copies the bytes to the end of the current block, which has room.
  void append(const char* data, size_t size);

  std::shared_ptr<BodyBlock> block_;
};

}  // namespace arkweb_host

#endif  // ARKWEB_BODY_BLOCKS_H

#include "arkweb/body_blocks.h"

#include <cstring>
#include <mutex>
#include <vector>

namespace arkweb_host {

struct BodyBlockPool {
  static BodyBlockPool& get() {
    static BodyBlockPool* pool = new BodyBlockPool;  // buffers may be let go of until exit
    return *pool;
  }

  // The last holder of a block brings it here.
  static void give(BodyBlock* block) {
    std::unique_ptr<BodyBlock> owned(block);
    if (owned->capacity_ != BodyBlock::kBlockBytes)
      return;
    owned->used_ = 0;
    BodyBlockPool& pool = get();
    std::lock_guard<std::mutex> lock(pool.mutex);
    if (pool.blocks.size() < BodyBlock::kPooledBlocks)
      pool.blocks.push_back(std::move(owned));
  }

  std::mutex mutex;
  std::vector<std::unique_ptr<BodyBlock>> blocks;  // guarded by mutex
};

std::shared_ptr<BodyBlock> BodyBlock::take(size_t bytes) {
  std::unique_ptr<BodyBlock> block;
  if (bytes <= kBlockBytes) {
    BodyBlockPool& pool = BodyBlockPool::get();
    std::lock_guard<std::mutex> lock(pool.mutex);
    if (!pool.blocks.empty()) {
      block = std::move(pool.blocks.back());
      pool.blocks.pop_back();
    }
  }
  if (!block)
    block.reset(new BodyBlock(bytes <= kBlockBytes ? kBlockBytes : bytes));
  return std::shared_ptr<BodyBlock>(block.release(), &BodyBlockPool::give);
}

size_t BodyBlock::pooled() {
  BodyBlockPool& pool = BodyBlockPool::get();
  std::lock_guard<std::mutex> lock(pool.mutex);
  return pool.blocks.size();
}

bool BodyWriter::extend(BodySlice& slice, const char* data, size_t size) {
  if (!block_ || slice.block != block_ || slice.offset + slice.size != block_->used_ ||
      block_->room() < size)
    return false;
  append(data, size);
  slice.size += size;
  return true;
}

BodySlice BodyWriter::write(const char* data, size_t size) {
  if (!block_ || block_->room() < size)
    block_ = BodyBlock::take(size);
  BodySlice slice{block_, block_->used_, size};
  append(data, size);
  return slice;
}

void BodyWriter::append(const char* data, size_t size) {
  if (size > 0)
    std::memcpy(block_->data() + block_->used_, data, size);
  block_->used_ += size;
}

}  // namespace arkweb_host

// A test fixture that checks every string and error a test made was given back to the pool,
// block for block and byte for byte.
#pragma once

#include <DorvikCore/DKError.h>
#include <DorvikCore/DKMemoryPool.h>

#include <gtest/gtest.h>

class DKPoolLeakCheckedTest : public ::testing::Test {
protected:
  void SetUp() override {
    DKLibraryError(DK_MSG_UNSPECIFIED); // the library's message source is made on first use and kept
    m_liveBlocks = DMMemoryPool::GetLiveBlocks();
    m_liveBytes = DMMemoryPool::GetLiveBytes();
  }
  // Bytes too: a block given back with another size than it was taken with (a string's block
  // tells its size by its capacity) leaves the byte count off.
  void TearDown() override {
    EXPECT_EQ(DMMemoryPool::GetLiveBlocks(), m_liveBlocks) << "pool blocks leaked";
    EXPECT_EQ(DMMemoryPool::GetLiveBytes(), m_liveBytes) << "pool bytes given back differ from those taken";
  }

private:
  std::size_t m_liveBlocks = 0;
  std::size_t m_liveBytes = 0;
};

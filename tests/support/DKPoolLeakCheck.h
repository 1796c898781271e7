// A test fixture that checks every string and error a test made was given back to the pool.
#pragma once

#include <DorvikCore/DKError.h>
#include <DorvikCore/DKMemoryPool.h>

#include <gtest/gtest.h>

class DKPoolLeakCheckedTest : public ::testing::Test {
protected:
  void SetUp() override {
    DKLibraryError(DK_MSG_UNSPECIFIED); // the library's message source is made on first use and kept
    m_liveBlocks = DMMemoryPool::GetLiveBlocks();
  }
  void TearDown() override { EXPECT_EQ(DMMemoryPool::GetLiveBlocks(), m_liveBlocks) << "pool blocks leaked"; }

private:
  std::size_t m_liveBlocks = 0;
};

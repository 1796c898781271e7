// The plug-in application's run loop delivers application timers on the main thread and keeps
// running while one is armed; loading many modules keeps a progress counter and reports it.
#include <DorvikCore/DKTimer.h>

#include "AppTestSupport.h"

#include <thread>

using namespace apptest;

namespace {

// Its run step arms a timer and returns; the ticks come from the run loop.
class Ticking : public DKRunPlugIn {
public:
  DKString GetName() const override { return DK_T("Ticking"); }
  PlugInIdEx GetId() const override { return PlugInIdEx(Id(72)); }
  DKErrorID Run() override {
    m_runThread = std::this_thread::get_id();
    return m_timer.Start(0, 1);
  }
  void Tick() {
    m_tickThreads.push_back(std::this_thread::get_id());
    if (m_tickThreads.size() == 3)
      m_timer.Cancel();
  }

  std::thread::id m_runThread;
  std::vector<std::thread::id> m_tickThreads;
  DKAppTimer m_timer{DKMakeCallback(this, &Ticking::Tick)};
};

class DKAppTimerLoopTest : public ConsoleTest {};

} // namespace

TEST_F(DKAppTimerLoopTest, RunDeliversApplicationTimersOnTheMainThreadUntilNoneIsArmed) {
  DKSmartPtr<Ticking> ticking(new Ticking);
  {
    DKApplicationWithPlugIns app(DKString(DK_T("host")));
    ASSERT_TRUE(app.LoadPlugIn(ticking).Good());
    EXPECT_EQ(app.Run(), 1); // returns once the timer is cancelled, although no plug-in runs
  }
  EXPECT_EQ(ticking->m_runThread, std::this_thread::get_id());
  EXPECT_EQ(ticking->m_tickThreads, std::vector<std::thread::id>(3, std::this_thread::get_id()));
}

TEST_F(DKAppTimerLoopTest, LoadingManyModulesCountsThemAndReportsTheProgress) {
  ScratchDir dir;
  std::string list;
  for (std::size_t i = 0; i < DKApplicationWithPlugIns::ProgressModuleCount; ++i)
    list += std::string(DK_TEST_PLUGIN_DIR) + "/good.osx\n"; // one plug-in, the others refused as duplicates
  WriteWholeFile(dir / "osx.lst", list);
  DKApplicationWithPlugIns app(DKString(DK_T("host")));
  EXPECT_TRUE(app.GetLoadProgress().IsNull());
  EXPECT_TRUE(app.LoadPlugInsFromDirectory(Text(dir.Path().string()), DK_T(".osx"), "GetPlugInObject", false).Good());
  const DKSmartPtr<DKProgress> progress = app.GetLoadProgress();
  ASSERT_FALSE(progress.IsNull());
  EXPECT_EQ(progress->GetLabel().AsUTF8(), "Loading plug-ins from " + dir.Path().string());
  EXPECT_TRUE(progress->IsComplete());
  const std::string last = "Loading plug-ins: 100% (8/8), ";
  const auto lines = SplitLines(Console());
  const auto found = std::find_if(lines.begin(), lines.end(), [&](const std::string& line) { return line.rfind(last, 0) == 0; });
  ASSERT_NE(found, lines.end()) << Console();
  EXPECT_GT(found - lines.begin(), std::find(lines.begin(), lines.end(), "LoadLibrary on " + std::string(DK_TEST_PLUGIN_DIR) + "/good.osx...") - lines.begin());
}

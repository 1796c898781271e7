// DKUnitTest: the test tree, its unattended run and its interactive text menu.
#include <DorvikCore/DKException.h>
#include <DorvikCore/DKUnitTest.h>

#include <algorithm>
#include <exception>
#include <istream>
#include <ostream>
#include <string>

// One entry of a level: a test or a sub-menu, exactly one of the two set. Entries are shared
// with the runs that reached them, so Clear never pulls one from under a run.
struct DKUnitTest::Entry {
  DKString name;
  ErrorTest test;
  std::unique_ptr<DKUnitTest> menu;
};

namespace {

DKString Quoted(const DKString& name) { return DKStrCat(DK_T("<"), name, DK_T(">")); }


// A reason is printed on the test's one line.
DKString OneLine(DKString text) {
  text.Replace(DK_T("\r\n"), DK_T(" "));
  text.Replace(DK_T("\n"), DK_T(" "));
  text.Replace(DK_T("\r"), DK_T(" "));
  return text;
}

// Runs the test; false with the reason when it failed. Nothing escapes.
bool Passes(const DKUnitTest::ErrorTest& test, DKString& reason) {
  try {
    const DKErrorID result = test();
    if (result.Good())
      return true;
    reason = result.AsString();
    if (reason.IsEmpty())
      reason.Format(DK_T("error %ld"), result.GetCode());
    return false;
  } catch (const DKException& e) {
    reason = DK_T("exception: ") + e.What();
  } catch (const std::exception& e) {
    reason = DK_T("exception: ") + DKString::FromUTF8(e.what());
  } catch (...) {
    reason = DK_T("unknown exception");
  }
  return false;
}

DKUnitTest::Result RunCase(const DKString& path, const DKUnitTest::ErrorTest& test, std::ostream& out) {
  DKString reason;
  DKUnitTest::Result result;
  if (Passes(test, reason)) {
    ++result.passed;
    out << "PASS " << path << std::endl;
  } else {
    ++result.failed;
    out << "FAIL " << path << ": " << OneLine(reason) << std::endl;
  }
  return result;
}

enum class LineRead { Line, TooLong, End };

// Reads one line of at most limit bytes (the line end and a "\r" before it not counted). The
// rest of a longer line is read and dropped.
LineRead ReadLine(std::istream& in, std::size_t limit, std::string& line) {
  line.clear();
  bool any = false;
  bool tooLong = false;
  for (int c = in.get(); c != std::char_traits<char>::eof(); c = in.get()) {
    any = true;
    if (c == '\n')
      break;
    if (line.size() <= limit)
      line.push_back(static_cast<char>(c));
    else
      tooLong = true;
  }
  if (!any)
    return LineRead::End;
  if (!line.empty() && line.back() == '\r')
    line.pop_back();
  return tooLong || line.size() > limit ? LineRead::TooLong : LineRead::Line;
}

std::string Trimmed(const std::string& text) {
  const auto first = text.find_first_not_of(" \t");
  if (first == std::string::npos)
    return std::string();
  return text.substr(first, text.find_last_not_of(" \t") - first + 1);
}

// The choice as a number; false when it is not one (digits only). A number too large for
// any menu reads as the largest number.
bool ParseChoice(const std::string& text, std::size_t& number) {
  if (text.empty() || text.find_first_not_of("0123456789") != std::string::npos)
    return false;
  const std::string digits = text.substr(std::min(text.find_first_not_of('0'), text.size()));
  number = digits.size() > 9 ? static_cast<std::size_t>(-1) : (digits.empty() ? 0 : std::stoul(digits));
  return true;
}

// Bytes of the user's line that are safe to echo: printable ASCII, others as "?".
std::string Printable(const std::string& text) {
  std::string shown;
  for (const char c : text)
    shown.push_back(c >= 0x20 && c < 0x7F ? c : '?');
  return shown;
}

} // namespace

DKUnitTest::DKUnitTest(const DKString& name) : m_name(name) {}

DKUnitTest::~DKUnitTest() = default;

DKErrorID DKUnitTest::AddTest(const DKString& name, ErrorTest test) {
  if (!test)
    return EmptyTest(name);
  return Add(name, std::move(test));
}

DKErrorID DKUnitTest::AddTest(const DKString& name, VoidTest test) {
  if (!test)
    return EmptyTest(name);
  return Add(name, [test = std::move(test)] {
    test();
    return DKErrorID();
  });
}

DKErrorID DKUnitTest::EmptyTest(const DKString& name) const {
  return DKLibraryErrorID(DK_MSG_INVALID_ARGUMENT,
                          DKStrCat(DK_T("the test "), Quoted(name), DK_T(" of menu "), Quoted(m_name), DK_T(" is empty")));
}

DKErrorID DKUnitTest::Add(const DKString& name, ErrorTest test) {
  if (name.IsEmpty())
    return DKLibraryErrorID(DK_MSG_INVALID_ARGUMENT, DK_T("a test of menu ") + Quoted(m_name) + DK_T(" has no name"));
  auto entry = std::make_shared<Entry>();
  entry->name = name;
  entry->test = std::move(test);
  std::lock_guard guard(m_lock);
  for (const auto& existing : m_entries)
    if (existing->name.IsEqual(name, DKString::IgnoreCase))
      return DKLibraryErrorID(DK_MSG_INVALID_ARGUMENT, DKStrCat(DK_T("menu "), Quoted(m_name), DK_T(" has an entry named "),
                                                                Quoted(existing->name), DK_T(" already")));
  m_entries.push_back(std::move(entry));
  return DKErrorID();
}

DKUnitTest& DKUnitTest::AddMenu(const DKString& name) {
  if (name.IsEmpty())
    throw DKException(DK_T("A sub-menu of menu ") + Quoted(m_name) + DK_T(" has no name"));
  std::lock_guard guard(m_lock);
  for (const auto& existing : m_entries)
    if (existing->name.IsEqual(name, DKString::IgnoreCase)) {
      if (!existing->menu)
        throw DKException(DKStrCat(DK_T("Menu "), Quoted(m_name), DK_T(" has a test named "), Quoted(existing->name),
                                   DK_T(": it cannot open a sub-menu of that name")));
      return *existing->menu;
    }
  auto entry = std::make_shared<Entry>();
  entry->name = name;
  entry->menu = std::make_unique<DKUnitTest>(name);
  DKUnitTest& menu = *entry->menu;
  m_entries.push_back(std::move(entry));
  return menu;
}

DKUnitTest* DKUnitTest::FindMenu(const DKString& name) const {
  const std::shared_ptr<const Entry> entry = FindEntry(name);
  return entry ? entry->menu.get() : nullptr;
}

std::shared_ptr<const DKUnitTest::Entry> DKUnitTest::FindEntry(const DKString& name) const {
  std::lock_guard guard(m_lock);
  for (const auto& entry : m_entries)
    if (entry->name.IsEqual(name, DKString::IgnoreCase))
      return entry;
  return nullptr;
}

std::size_t DKUnitTest::GetEntryCount() const {
  std::lock_guard guard(m_lock);
  return m_entries.size();
}

void DKUnitTest::Clear() {
  EntryList removed;
  {
    std::lock_guard guard(m_lock);
    removed.swap(m_entries);
  }
  // The entries (and the tests' callables) are destroyed here, outside the lock: a callable's
  // destructor may well add to or look at a menu.
}

DKUnitTest::EntryList DKUnitTest::Snapshot() const {
  std::lock_guard guard(m_lock);
  return m_entries;
}

DKUnitTest::Result DKUnitTest::RunAll(std::ostream& out) const { return RunAll(m_name, out); }

DKUnitTest::Result DKUnitTest::RunAll(const DKString& path, std::ostream& out) const {
  Result result;
  // Depth first without recursion: each level is a snapshot and a position in it.
  struct Level {
    EntryList entries;
    std::size_t next;
    DKString path;
  };
  std::vector<Level> levels;
  levels.push_back(Level{Snapshot(), 0, path});
  while (!levels.empty()) {
    Level& level = levels.back();
    if (level.next == level.entries.size()) {
      levels.pop_back();
      continue;
    }
    const std::shared_ptr<const Entry> entry = level.entries[level.next++];
    const DKString entryPath = level.path + DK_T("/") + entry->name;
    if (entry->menu)
      levels.push_back(Level{entry->menu->Snapshot(), 0, entryPath}); // level is invalid from here
    else
      result += RunCase(entryPath, entry->test, out);
  }
  out << path << ": " << result.Total() << " run, " << result.passed << " passed, " << result.failed << " failed"
      << std::endl;
  return result;
}

void DKUnitTest::ShowLevel(const DKString& path, const EntryList& entries, bool top, std::ostream& out) {
  out << "== " << path << " ==" << '\n';
  if (entries.empty())
    out << "  (no entries)" << '\n';
  for (std::size_t i = 0; i < entries.size(); ++i)
    out << "  " << i + 1 << ". " << entries[i]->name << (entries[i]->menu ? " >" : "") << '\n';
  out << "  a. Run all" << '\n' << (top ? "  0. Quit" : "  0. Back") << '\n';
  if (!top)
    out << "  q. Quit" << '\n';
  out << "Choice: " << std::flush;
}

DKUnitTest::Result DKUnitTest::RunInteractive(std::istream& in, std::ostream& out,
                                              const std::function<bool()>& stop) const {
  struct Level {
    const DKUnitTest* menu;
    DKString path;
    std::shared_ptr<const Entry> keep; // keeps a sub-menu alive through a Clear of its parent
  };
  std::vector<Level> levels{Level{this, m_name, nullptr}};
  Result result;
  std::string line;
  while (!levels.empty()) {
    if (stop && stop())
      break;
    const Level level = levels.back();
    const EntryList entries = level.menu->Snapshot();
    const bool top = levels.size() == 1;

    ShowLevel(level.path, entries, top, out);
    const LineRead read = ReadLine(in, MaxChoiceLine, line);
    if (read == LineRead::End) {
      out << std::endl;
      break;
    }
    if (read == LineRead::TooLong) {
      out << "Invalid choice: the line is longer than " << MaxChoiceLine << " characters." << std::endl;
      continue;
    }
    const std::string choice = Trimmed(line);
    std::size_t number = 0;
    if (choice.empty())
      continue;
    if (choice == "q" || choice == "Q")
      break;
    if (choice == "a" || choice == "A") {
      result += level.menu->RunAll(level.path, out);
    } else if (!ParseChoice(choice, number)) {
      out << "Invalid choice \"" << Printable(choice) << "\": type a number from the menu, a, 0"
          << (top ? "" : " or q") << '.' << std::endl;
    } else if (number == 0) {
      levels.pop_back();
    } else if (number > entries.size()) {
      if (entries.empty())
        out << "Invalid choice " << choice << ": this menu has no entries." << std::endl;
      else
        out << "Invalid choice " << choice << ": choose 1 to " << entries.size() << '.' << std::endl;
    } else {
      const std::shared_ptr<const Entry>& entry = entries[number - 1];
      const DKString entryPath = level.path + DK_T("/") + entry->name;
      if (entry->menu)
        levels.push_back(Level{entry->menu.get(), entryPath, entry});
      else
        result += RunCase(entryPath, entry->test, out);
    }
  }
  return result;
}

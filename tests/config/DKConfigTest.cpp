#include <DorvikCore/DKConfig.h>
#include <DorvikCore/DKError.h>

#include <gtest/gtest.h>

#include <stdlib.h>

#include <filesystem>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

namespace {

namespace fs = std::filesystem;

class DKConfigTest : public ::testing::Test {
protected:
  void SetUp() override {
    std::string pattern = (fs::temp_directory_path() / "dkconfig-light-XXXXXX").string();
    ASSERT_NE(::mkdtemp(pattern.data()), nullptr);
    m_dir = pattern;
  }
  void TearDown() override {
    std::error_code ignored;
    fs::remove_all(m_dir, ignored);
  }
  DKString File(const std::string& bytes, const char* name = "light.ini") {
    const fs::path path = m_dir / name;
    std::ofstream(path, std::ios::binary) << bytes;
    DKString p;
    p.SetFromUTF8(path.string().c_str());
    return p;
  }

  fs::path m_dir;
};

struct LookupCase {
  const char* text;
  const char16_t* section;
  const char16_t* key;
  const char* value; // null: not found
};

const LookupCase kLookups[] = {
    {"[Main]\nKey=Value\n", u"main", u"KEY", "Value"},
    {"[Main]\nkey = a b \t  c\n", u"Main", u"key", "a b c"},
    {"[Main]\nkey=a=b c\n", u"Main", u"key", "a b c"},
    {"[Main]\nkey=x y=z\n", u"Main", u"key", "x y=z"},
    {"[Main]\nkey=\n", u"Main", u"key", ""},
    {"[Main]\n;key=commented\nkey=real\n", u"Main", u"key", "real"},
    {"[Main]\nother=1\n[Next]\nkey=2\n", u"Main", u"key", nullptr},
    {"[Main]\nother=1\n  [Next]\nkey=2\n", u"Main", u"key", nullptr},
    {"[Main]\nkey=1\n[Main]\nextra=2\n", u"Main", u"extra", nullptr},
    {"key=top\n[Main]\n", u"Main", u"key", nullptr},
    {" [Main]\nkey=1\n", u"Main", u"key", nullptr},
    {"[main] trailing\nkey=1", u"MAIN", u"key", "1"},
    {"[Main]\r\n\r\n  key\t=\tv\r\n", u"Main", u"key", "v"},
    {"\xEF\xBB\xBF[Main]\nkey=\xE2\x82\xAC\n", u"Main", u"key", "\xE2\x82\xAC"},
    {"[Main]\nmy key=1\n", u"Main", u"my key", nullptr},
};

TEST_F(DKConfigTest, LookUpsSearchTheFileLineByLine) {
  for (const LookupCase& c : kLookups) {
    SCOPED_TRACE(c.text);
    const DKConfig config(File(c.text));
    ASSERT_TRUE(config.IsOpen());
    DKString value;
    const bool found = config.Find(c.section, c.key, value);
    EXPECT_EQ(found, c.value != nullptr);
    if (found) {
      EXPECT_EQ(value.AsUTF8(), c.value);
    }
    EXPECT_EQ(config.GetString(c.section, c.key, DK_T("dflt")).AsUTF8(), c.value ? c.value : "dflt");
  }
}

TEST_F(DKConfigTest, LinesAreReadUpToTheirFirst255Units) {
  const DKConfig config(File("[Main]\nkey=" + std::string(300, 'x') + "\nnext=1\n"));
  EXPECT_EQ(config.GetString(DK_T("Main"), DK_T("key")).Length(), DKConfig::lookupLineLength - 4);
  EXPECT_EQ(config.GetLong(DK_T("Main"), DK_T("next")), 1);
  EXPECT_EQ(DKConfig::maxLineLength, 1024u);
}

TEST_F(DKConfigTest, Utf16FilesWithAByteOrderMark) {
  const std::u16string text = u"[Main]\r\nkey=\u00E9t\u00E9\r\n";
  for (const bool little : {true, false}) {
    std::string bytes = little ? "\xFF\xFE" : "\xFE\xFF";
    for (const char16_t u : text) {
      const char hi = static_cast<char>(u >> 8), lo = static_cast<char>(u & 0xFF);
      bytes += little ? std::string{lo, hi} : std::string{hi, lo};
    }
    const DKConfig config(File(bytes));
    EXPECT_EQ(config.GetString(DK_T("MAIN"), DK_T("key")).AsUTF8(), "\xC3\xA9t\xC3\xA9");
  }
}

TEST_F(DKConfigTest, NumbersAndDefaults) {
  const DKConfig config(File("[N]\nport=8080\nbad=x\n"));
  EXPECT_EQ(config.GetLong(DK_T("n"), DK_T("PORT"), 1), 8080);
  EXPECT_EQ(config.GetLong(DK_T("n"), DK_T("bad"), 1), 0);
  EXPECT_EQ(config.GetLong(DK_T("n"), DK_T("missing"), 1), 1);
  // Repeated look-ups start from the top each time.
  EXPECT_EQ(config.GetLong(DK_T("n"), DK_T("PORT"), 1), 8080);
}

TEST_F(DKConfigTest, MissingFilesAndFolders) {
  DKConfig config;
  EXPECT_FALSE(config.IsOpen());
  EXPECT_EQ(config.GetString(DK_T("a"), DK_T("b"), DK_T("d")).AsUTF8(), "d");
  DKString missing;
  missing.SetFromUTF8((m_dir / "missing.ini").string().c_str());
  EXPECT_FALSE(config.Open(missing));
  EXPECT_EQ(config.GetFileName(), missing);
  DKString folder;
  folder.SetFromUTF8(m_dir.string().c_str());
  EXPECT_FALSE(config.Open(folder));
  EXPECT_FALSE(config.IsOpen());
  EXPECT_TRUE(config.Open(File("[a]\nb=c\n")));
  EXPECT_EQ(config.GetString(DK_T("a"), DK_T("b")).AsUTF8(), "c");
}

TEST_F(DKConfigTest, LookUpsFromSeveralThreads) {
  std::string text;
  for (int s = 0; s < 20; ++s) {
    text += "[S" + std::to_string(s) + "]\n";
    for (int k = 0; k < 10; ++k)
      text += "k" + std::to_string(k) + "=" + std::to_string(s * 100 + k) + "\n";
  }
  const DKConfig config(File(text));
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t)
    threads.emplace_back([&, t] {
      for (int i = 0; i < 200; ++i) {
        const int s = (i + t) % 20, k = i % 10;
        EXPECT_EQ(config.GetLong(DKString().Format(DK_T("s%d"), s), DKString().Format(DK_T("K%d"), k), -1), s * 100 + k);
      }
    });
  for (std::thread& t : threads)
    t.join();
}

} // namespace

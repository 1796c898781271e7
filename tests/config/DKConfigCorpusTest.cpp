// Real configuration files from Debian packages (tests/config/corpus; origins and licences in its
// README), read with ';' alone and with '#' comments too. Each loads or fails as recorded; with
// '#' comments on, it answers the look-ups a person reading the file expects. The config fuzz
// target replays the same files under CTest: each saves to exactly the normal form of the
// README's rules and reads back the same. (That Save and Save2 write what SaveToBytes gives:
// DKConfigFileDiskTest.LoadSaveAndSave2.)
#include <DorvikCore/DKConfigFile.h>
#include <DorvikCore/DKException.h>

#include <gtest/gtest.h>

#include "support/DKTestSupport.h"
#include "support/DKCaseBlocks.h"

#include <filesystem>
#include <set>
#include <string>
#include <vector>

namespace {

namespace fs = std::filesystem;

// The files and what they hold: cases/corpus.txt.
std::vector<dkcases::Case> Corpus() {
  return dkcases::Read("corpus.txt", {"file", "error-semicolons", "error-hashes", "lookup"});
}

using DKConfigCorpusTest = ::testing::Test;

TEST_F(DKConfigCorpusTest, EveryFileIsListedWithWhatItHolds) {
  std::set<std::string> onDisk, listed;
  for (const auto& entry : fs::directory_iterator(DK_CONFIG_CORPUS))
    if (entry.path().filename() != "README.md")
      onDisk.insert(entry.path().filename().string());
  for (const dkcases::Case& file : Corpus())
    listed.insert(file.Get("file"));
  EXPECT_EQ(onDisk, listed);
  EXPECT_GE(listed.size(), 30u);
}

TEST_F(DKConfigCorpusTest, FilesLoadSaveAsTheRulesSayAndAnswerTheirLookups) {
  for (const dkcases::Case& c : Corpus()) {
    const fs::path path = fs::path(DK_CONFIG_CORPUS) / c.Get("file");
    for (const bool hash : {false, true}) {
      SCOPED_TRACE(c.where + (hash ? " with '#' comments" : " with ';' comments"));
      const DKString markers = hash ? DK_T(";#") : DK_T(";");
      DKSmartPtr<DKConfigFile> file(new DKConfigFile(Text(path.string())));
      ASSERT_TRUE(file->SetCommentMarkers(markers));
      if (const char* error = hash ? "error-hashes" : "error-semicolons"; c.Has(error)) {
        try {
          file->Reload();
          ADD_FAILURE() << "loaded";
        } catch (const DKConfigStreamException& e) {
          EXPECT_EQ(e.what(), c.Get(error));
        }
        continue;
      }
      ASSERT_TRUE(file->Reload()) << file->GetLastErrorText().AsUTF8();
      ASSERT_EQ(file->GetEncoding(), DKConfigFile::Utf8);
      if (!hash)
        continue;
      for (const std::string& text : c.All("lookup")) {
        const dkcases::Lookup lookup = dkcases::ReadLookup(text);
        EXPECT_EQ(file->GetString(lookup.section, lookup.key, DK_T("(none)")), lookup.value.value_or(DK_T("(none)"))) << text;
      }
    }
  }
}

} // namespace

// Real configuration files from Debian packages (tests/config/corpus; origins and licences in its
// README), read with ';' alone and with '#' comments too. Each loads or fails as recorded; a
// file that loads saves to exactly the normal form of the README's rules (so nothing is lost
// beyond them), reads back the same, and saves alike with Save and Save2; with '#' comments on,
// it answers the look-ups a person reading the file expects.
#include <DorvikCore/DKConfigFile.h>
#include <DorvikCore/DKException.h>

#include <gtest/gtest.h>

#include "support/DKConfigNormalForm.h"
#include "support/DKTestPlatform.h"

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <set>
#include <sstream>
#include <string>
#include <vector>

namespace {

namespace fs = std::filesystem;

const char* const kEofInKey = "unexpected EOF while parsing a key name of a configuration line";

// A look-up with '#' comments on; a null value: no such setting (commented out, or kept out of
// the tree by the format).
struct Lookup {
  const char* section;
  const char* key;
  const char* value;
};

struct CorpusFile {
  const char* name;
  const char* errorWithSemicolons; // null: loads with ';' comments only
  const char* errorWithHashes;     // null: loads with '#' comments too
  std::vector<Lookup> lookups;
};

// Where the format itself decides: "[ ca ]" names the section " ca " (names are taken as they
// stand), a value runs to the end of its line (" ; text" after it stays), key lines before the
// first header are no settings, and a line without "=" joins the next key.
const std::vector<CorpusFile> kCorpus = {
    {"appstream.conf", nullptr, nullptr,
     {{"debian", "FreeRepos", "debian-*-main"}, {"ubuntu", "ScreenshotUrl", "http://screenshots.ubuntu.com"}}},
    {"apt-daily-upgrade.timer", nullptr, nullptr,
     {{"Timer", "OnCalendar", "*-*-* 6:00"}, {"install", "wantedby", "timers.target"}}},
    {"at-spi2-core-at-spi-dbus-bus.desktop", nullptr, nullptr,
     {{"Desktop Entry", "Exec", "/usr/libexec/at-spi-bus-launcher --launch-immediately"}}},
    {"dbus-user-session-dbus.service", nullptr, nullptr, {{"Service", "Type", "notify"}, {"Unit", "Requires", "dbus.socket"}}},
    {"e2fsprogs-e2scrub@.service", nullptr, nullptr,
     {{"Unit", "Description", "Online ext4 Metadata Check for %I"}, {"Service", "ProtectHome", "read-only"}}},
    {"fpc-QPasHello.ini", nullptr, nullptr,
     {{"FPC", "CompilerPath", "C:\\Programas\\fpcbuild\\fpcsrc\\compiler\\ppc386.exe"}, {"Main", "SDKVersion", "3"}}},
    {"fpc-qhelloworld_uiq21_arm.ini", nullptr, nullptr, {{"UIDs", "UID2", "0x100039CE"}, {"Main", "ProjectType", "APP"}}},
    {"fpc-wcetemu.ini", nullptr, nullptr, {{"Options", "CopyFile", nullptr}}},
    {"gnupg-dirmngr.service", nullptr, nullptr, {{"Service", "ExecStart", "/usr/bin/dirmngr --supervised"}}},
    {"gnupg-gpg-agent.socket", nullptr, nullptr, {{"Socket", "SocketMode", "0600"}, {"Install", "WantedBy", "sockets.target"}}},
    {"gtk2-im-multipress.conf", nullptr, nullptr, {{"keys", "KP_5", "j;k;l;5;\xC2\xA3"}, {"keys", "KP_0", "\\s;0"}}},
    {"mariadb.cnf", kEofInKey, kEofInKey, {}},
    {"mariadb-50-mysqld_safe.cnf", kEofInKey, kEofInKey, {}},
    {"mariadb-50-server.cnf", kEofInKey, nullptr,
     {{"mysqld", "bind-address", "127.0.0.1"}, {"mysqld", "character-set-server", "utf8mb4"}, {"mysqld", "port", nullptr}}},
    {"mercurial-hgrc", kEofInKey, nullptr, {}},
    {"mercurial-mergetools.rc", nullptr, nullptr,
     {{"merge-tools", "araxis.priority", "-2"}, {"merge-tools", "araxis.regappend", "\\ConsoleCompare.exe"}}},
    {"openssl.cnf", nullptr, nullptr,
     {{" ca ", "default_ca", "CA_default\t\t# The default ca section"}, {"ca", "default_ca", nullptr}, {"", "HOME", nullptr}}},
    {"packagekit-PackageKit.conf", nullptr, nullptr, {{"Daemon", "KeepCache", nullptr}}},
    {"packagekit-org.freedesktop.PackageKit.service", nullptr, nullptr,
     {{"D-BUS Service", "Exec", "/usr/libexec/packagekitd"}, {"D-BUS Service", "User", "root"}}},
    {"php-calendar.ini", nullptr, nullptr, {{"", "extension", nullptr}}},
    {"php.ini-production", nullptr, nullptr,
     {{"PHP", "memory_limit", "128M"}, {"php", "ENGINE", "On"}, {"Session", "session.name", "PHPSESSID"},
      {"Date", "date.timezone", nullptr}}},
    {"pylint-testing_pylintrc", kEofInKey, kEofInKey, {}},
    {"python-cfgparser.1", nullptr, nullptr, {{"Foo Bar", "foo", "newbar"}}},
    {"python-cfgparser.2", nullptr, nullptr, {{"global", "workgroup", "MDKGROUP"}, {"printers", "path", "/var/spool/samba"}}},
    {"python-cfgparser.3", nullptr, nullptr,
     {{"DEFAULT", "go", "%(interpolate)s"},
      {"strange", "values", "that are indented # and end with hash comments"},
      {"strange", "other", "that do continue"}}},
    {"python3.11.desktop", nullptr, nullptr, {{"Desktop Entry", "Exec", "/usr/bin/python3.11"}, {"Desktop Entry", "Terminal", "true"}}},
    {"samba-smb.conf", kEofInKey, nullptr,
     {{"global", "workgroup", "WORKGROUP"}, {"global", "server role", "standalone server"}, {"global", "wins support", nullptr}}},
    {"ssl-cert-ssleay.cnf", nullptr, nullptr, {{" req ", "default_bits", "2048"}, {" req ", "prompt", "no"}}},
    {"supervisor-issue-733.conf", nullptr, nullptr,
     {{"supervisord", "loglevel", "debug               ; log level; default info; others: debug,warn,trace"}}},
    {"supervisor-sample.conf", nullptr, nullptr, {{"unix_http_server", "file", "/tmp/supervisor.sock   ; the path to the socket file"}}},
    {"supervisor-supervisord.conf", nullptr, nullptr,
     {{"supervisord", "pidfile", "/var/run/supervisord.pid ; (supervisord pidfile;default supervisord.pid)"}}},
    {"systemd-80-container-host0.network", nullptr, nullptr, {{"Match", "Name", "host0"}, {"Network", "DHCP", "yes"}}},
    {"systemd-journald.conf", nullptr, nullptr, {{"Journal", "Storage", nullptr}}},
    {"systemd-logind.conf", nullptr, nullptr, {{"Login", "HandlePowerKey", nullptr}}},
    {"systemd-system.conf", nullptr, nullptr, {{"Manager", "LogLevel", nullptr}}},
    {"systemd-timesyncd.conf", nullptr, nullptr, {{"Time", "NTP", nullptr}}},
    {"systemd-timesyncd.service", nullptr, nullptr,
     {{"Service", "ExecStart", "!!/lib/systemd/systemd-timesyncd"}, {"Service", "WatchdogSec", "3min"}}},
    {"systemd-tmpfiles-clean.timer", nullptr, nullptr, {{"Timer", "OnUnitActiveSec", "1d"}}},
    {"systemd-user@.service", nullptr, nullptr, {{"Unit", "Description", "User Manager for UID %i"}}},
    {"vim.desktop", nullptr, nullptr,
     {{"Desktop Entry", "GenericName[ja]", "\xE3\x83\x86\xE3\x82\xAD\xE3\x82\xB9\xE3\x83\x88\xE3\x82\xA8\xE3\x83\x87\xE3\x82\xA3\xE3\x82\xBF"},
      {"Desktop Entry", "Comment[fr]", "\xC3\x89" "diter des fichiers texte"}}},
    {"xdg-user-dirs.desktop", nullptr, nullptr, {{"Desktop Entry", "Exec", "xdg-user-dirs-update"}}},
};

DKString Dk(const std::string& utf8) { return DKString::FromUTF8(utf8); }

std::string ReadBytes(const fs::path& path) {
  std::ifstream in(path, std::ios::binary);
  std::ostringstream text;
  text << in.rdbuf();
  return text.str();
}

bool SameContent(const DKConfigFile& a, const DKConfigFile& b) {
  return std::equal(a.begin(), a.end(), b.begin(), b.end()) && a.GetLeadingText() == b.GetLeadingText();
}

class DKConfigCorpusTest : public ::testing::Test {
protected:
  void SetUp() override {
    m_dir = dktest::MakeScratchFolder("dkcorpus-");
  }
  void TearDown() override {
    std::error_code ignored;
    fs::remove_all(m_dir, ignored);
  }
  fs::path m_dir;
};

TEST_F(DKConfigCorpusTest, EveryFileIsListedWithWhatItHolds) {
  std::set<std::string> onDisk, listed;
  for (const auto& entry : fs::directory_iterator(DK_CONFIG_CORPUS))
    if (entry.path().filename() != "README.md")
      onDisk.insert(entry.path().filename().string());
  for (const CorpusFile& file : kCorpus)
    listed.insert(file.name);
  EXPECT_EQ(onDisk, listed);
  EXPECT_GE(listed.size(), 30u);
}

TEST_F(DKConfigCorpusTest, FilesLoadSaveAsTheRulesSayAndAnswerTheirLookups) {
  for (const CorpusFile& c : kCorpus) {
    const fs::path path = fs::path(DK_CONFIG_CORPUS) / c.name;
    const std::string bytes = ReadBytes(path);
    for (const bool hash : {false, true}) {
      SCOPED_TRACE(std::string(c.name) + (hash ? " with '#' comments" : " with ';' comments"));
      const DKString markers = hash ? DK_T(";#") : DK_T(";");
      DKSmartPtr<DKConfigFile> file(new DKConfigFile(Dk(path.string())));
      ASSERT_TRUE(file->SetCommentMarkers(markers));
      if (const char* error = hash ? c.errorWithHashes : c.errorWithSemicolons) {
        try {
          file->Reload();
          ADD_FAILURE() << "loaded";
        } catch (const DKConfigStreamException& e) {
          EXPECT_STREQ(e.what(), error);
        }
        continue;
      }
      ASSERT_TRUE(file->Reload()) << file->GetLastErrorText().AsUTF8();
      ASSERT_EQ(file->GetEncoding(), DKConfigFile::Utf8);

      std::string saved;
      ASSERT_TRUE(file->SaveToBytes(saved));
      EXPECT_EQ(saved, dkconfigref::NormalForm(bytes, hash));

      DKSmartPtr<DKConfigFile> again(new DKConfigFile());
      again->SetCommentMarkers(markers);
      ASSERT_TRUE(again->ReloadFromBytes(saved.data(), saved.size()));
      EXPECT_TRUE(SameContent(*file, *again));

      const fs::path copy = m_dir / "copy", atomicCopy = m_dir / "atomic-copy";
      file->SetFileName(Dk(copy.string()));
      ASSERT_TRUE(file->Save());
      file->SetFileName(Dk(atomicCopy.string()));
      ASSERT_TRUE(file->Save2());
      EXPECT_EQ(ReadBytes(copy), saved);
      EXPECT_EQ(ReadBytes(atomicCopy), saved);

      if (!hash)
        continue;
      for (const Lookup& lookup : c.lookups) {
        const DKString found = file->GetString(Dk(lookup.section), Dk(lookup.key), DK_T("(none)"));
        EXPECT_EQ(found.AsUTF8(), lookup.value ? lookup.value : "(none)") << "[" << lookup.section << "] " << lookup.key;
      }
    }
  }
}

} // namespace

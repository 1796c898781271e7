// DKConfig: a light, read-only configuration reader that searches the file on disk for each
// look-up instead of loading it (see DKConfigFile for the editable tree).
#pragma once

#include <DorvikCore/DKConfigFile.h>
#include <DorvikCore/DKString.h>

#include <cstddef>
#include <fstream>
#include <mutex>

// A look-up of (section, key) reads the file from its start, line by line, looking only at the
// first lookupLineLength units of each line:
// - lines are skipped up to one that starts with "[" and whose text up to "]" is the section
//   name (without regard to case);
// - then lines starting with ";" are skipped and each other line is split at spaces, tabs and
//   "="; a first word starting with "[" ends the search (the next section), a first word equal
//   to the key (without regard to case) is the match;
// - the value is the next word (ended by a space, tab or "=") followed by the remaining words
//   (ended by spaces or tabs) joined with single spaces.
// The file is UTF-8 (with or without a byte-order mark) or UTF-16 with a byte-order mark; it
// stays open while the object lives, so a file replaced on disk (renamed over) is not seen
// until Open is called again. Look-ups may come from several threads.
class DK_EXPORT DKConfig : public DKConfigI {
public:
  // Kept for callers that size line buffers after it.
  static constexpr std::size_t maxLineLength = 1024;
  // The part of each line a look-up reads.
  static constexpr std::size_t lookupLineLength = 255;

  // No file open: every look-up gives its default.
  DKConfig();
  // Opens the file at once; IsOpen says whether that worked.
  explicit DKConfig(const DKString& fileName);
  ~DKConfig() override;
  // Not copyable: the object owns an open file.
  DKConfig(const DKConfig&) = delete;
  DKConfig& operator=(const DKConfig&) = delete;

  // Opens the file (closing the one open before); false when it does not exist, cannot be read
  // or is not a plain file (a FIFO, a socket or a device is never waited on).
  bool Open(const DKString& fileName);
  // Whether a file is open.
  bool IsOpen() const;
  // The name given to the last Open, also when it failed.
  DKString GetFileName() const;

  // The value found, or defaultValue (also when no file is open).
  DKString GetString(const DKString& section, const DKString& key,
                     const DKString& defaultValue = DKString()) const override;
  // The value converted as DKString::AsLong converts it, or defaultValue when not found.
  long GetLong(const DKString& section, const DKString& key, long defaultValue = 0) const override;

  // The UTF-8 forms of the look-ups (DKConfigI).
  using DKConfigI::GetLong;
  using DKConfigI::GetString;
  // Whether the key is there; value receives it.
  bool Find(const DKString& section, const DKString& key, DKString& value) const;

private:
  enum TextEncoding { Utf8Text, Utf16LEText, Utf16BEText };
  // The next line of the file, its first lookupLineLength units; false at the end.
  bool ReadLine(DKString& line) const;

  mutable std::mutex m_lock;
  mutable std::ifstream m_stream;
  DKString m_fileName;
  TextEncoding m_encoding = Utf8Text;
  std::streamoff m_textStart = 0;
};

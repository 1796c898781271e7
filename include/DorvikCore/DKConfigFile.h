// Sectioned configuration files: an editable tree of sections, key lines and the comment
// blocks in front of them, read from and written back to disk so that order and comments
// survive.
//
// File format, one item a line:
//   ; a comment (an empty line is an empty comment)
//   [Section name]
//   key=value
// Comment blocks belong to the key line or section header that follows them; comments after
// the last item form a final section with an empty name. A line without "=" is part of the key
// of the next "=" line. Key lines in front of the first header are not in the tree: the file
// keeps their text apart (GetLeadingText) and writes it back first, so that a save never loses
// them. Names are looked up without regard to case and written as stored. A section without a
// name is written with the header "[]", unless it only holds the comments that end the file.
//
// Only ";" starts a comment. Files of the wider INI family that comment with "#" are read
// that way after SetCommentMarkers(";#"); the loader notes every "#" line it reads as text
// otherwise (GetLoadNotes).
//
// Threads: every item of a file locks through the file's one lock, and each operation of the
// file and its items holds it while it runs. Iterators and references into the tree, and copying
// or assigning items, are only safe while the caller holds the lock (DKConfigLockGuard on the
// file).
#pragma once

#include <DorvikCore/DKRefCount.h>
#include <DorvikCore/DKString.h>
#include <DorvikCore/DKTypes.h>

#include <cstddef>
#include <iosfwd>
#include <mutex>
#include <string>
#include <string_view>
#include <type_traits>
#include <vector>

struct DKConfigIO;
class DKFileBytes;

// Something that can be locked. The configuration items lock through their owner. lock() and
// unlock() are the standard spellings, so std::lock_guard and std::unique_lock hold an item:
//   std::lock_guard guard(section);
class DK_EXPORT DKConfigLockableI {
public:
  // Takes the lock, and releases it once per Lock; lock and unlock are the same.
  virtual void Lock() const = 0;
  virtual void Unlock() const = 0;
  void lock() const { Lock(); }
  void unlock() const { Unlock(); }

protected:
  ~DKConfigLockableI() = default;
};

// Holds a lockable item locked for one scope.
using DKConfigLockGuard = std::lock_guard<const DKConfigLockableI>;

// Base of the items of a configuration file. Locking an item locks its owner; an item without
// an owner (one that is not part of a file) has nothing to lock.
// A copy starts without an owner. A moved item keeps its owner, so that a file can move its
// items around; assigning to an item keeps the item's own owner.
class DK_EXPORT DKConfigLockable : public DKConfigLockableI {
public:
  virtual ~DKConfigLockable();
  // Locks and unlocks the owner; nothing without one.
  void Lock() const override;
  void Unlock() const override;
  // Gives this item (and the items it holds) an owner; null leaves it on its own.
  virtual void SetOwner(const DKConfigLockableI* owner);
  // The owner (not owned: the file the item belongs to); null for an item on its own.
  const DKConfigLockableI* GetOwner() const noexcept { return m_pOwner; }

protected:
  // For the items: no owner; a copy has none, a move keeps the other's, assignment keeps its own.
  DKConfigLockable() noexcept = default;
  DKConfigLockable(const DKConfigLockable&) noexcept : DKConfigLockableI() {}
  DKConfigLockable(DKConfigLockable&& other) noexcept : DKConfigLockableI(), m_pOwner(other.m_pOwner) {}
  DKConfigLockable& operator=(const DKConfigLockable&) noexcept { return *this; }
  DKConfigLockable& operator=(DKConfigLockable&&) noexcept { return *this; }

private:
  const DKConfigLockableI* m_pOwner = nullptr;
};

// Names given as narrow (UTF-8) text, for the look-up forms that take them: at least one of
// the two is narrow, and both can stand for a name.
template <class Section, class Key>
concept DKConfigNarrowName =
    (std::is_convertible_v<const Section&, std::string_view> || std::is_convertible_v<const Key&, std::string_view>) &&
    std::is_convertible_v<const Section&, DKTextArg> && std::is_convertible_v<const Key&, DKTextArg>;

// The look-up interface of configuration sources.
class DK_EXPORT DKConfigI {
public:
  virtual ~DKConfigI();
  // The value of key in section (both found without regard to case); defaultValue when
  // either is missing.
  virtual DKString GetString(const DKString& section, const DKString& key,
                             const DKString& defaultValue = DKString()) const = 0;
  // The same value converted as DKString::AsLong converts it.
  virtual long GetLong(const DKString& section, const DKString& key, long defaultValue = 0) const = 0;

  // The same look-ups with UTF-8 names (std::string, std::string_view, "literals") for either
  // or both of section and key: GetString("server", DK_T("port")).
  template <class Section, class Key>
    requires DKConfigNarrowName<Section, Key>
  DKString GetString(const Section& section, const Key& key, const DKString& defaultValue = DKString()) const {
    return GetString(DKTextArg(section).Get(), DKTextArg(key).Get(), defaultValue);
  }
  template <class Section, class Key>
    requires DKConfigNarrowName<Section, Key>
  long GetLong(const Section& section, const Key& key, long defaultValue = 0) const {
    return GetLong(DKTextArg(section).Get(), DKTextArg(key).Get(), defaultValue);
  }
};

// The comment block in front of a line or a section: comment texts without their marker
// (";" unless the file reads other markers, see DKConfigFile::SetCommentMarkers).
class DK_EXPORT DKConfigComments : public DKConfigLockable {
public:
  typedef std::vector<DKString> CommentVector;     // The comment texts, in order.
  typedef CommentVector::iterator Iterator;         // A position in the block.
  typedef CommentVector::const_iterator ConstIterator; // A position in a block that is not changed.

  // An empty block; copies take the texts and markers (a copy has no owner).
  DKConfigComments() = default;
  DKConfigComments(const DKConfigComments&) = default;
  DKConfigComments(DKConfigComments&&) noexcept = default;
  DKConfigComments& operator=(const DKConfigComments&) = default;
  DKConfigComments& operator=(DKConfigComments&&) noexcept = default;
  ~DKConfigComments() override;

  // The comments in order, for iteration while the caller holds the file's lock.
  Iterator GetCommentsBegin() { return m_comments.begin(); }
  Iterator GetCommentsEnd() { return m_comments.end(); }
  ConstIterator GetCommentsBegin() const { return m_comments.begin(); }
  ConstIterator GetCommentsEnd() const { return m_comments.end(); }
  Iterator begin() { return m_comments.begin(); }
  Iterator end() { return m_comments.end(); }
  ConstIterator begin() const { return m_comments.begin(); }
  ConstIterator end() const { return m_comments.end(); }

  // Inserts a comment before `before` (at the end without it); returns its position. The
  // marker is ";" unless given; an empty ";" comment is written as an empty line. Carriage
  // returns at the end of a text are not written (they would read back as part of the line end).
  Iterator AddComment(const DKString& text);
  Iterator AddComment(const DKString& text, Iterator before);
  Iterator AddComment(const DKString& text, Iterator before, DKChar marker);
  // The character that starts the comment's line: ';', or another marker of the file it was
  // read from. A marker is ASCII punctuation other than "[", "]" and "="; AddComment takes
  // anything else as ';', SetMarker refuses it. A file refuses to save a comment whose marker
  // it does not read as one.
  DKChar GetMarker(ConstIterator position) const;
  bool SetMarker(Iterator position, DKChar marker);
  // Removes one comment; returns the position after it.
  Iterator DeleteComment(Iterator position);
  // The number of comments; IsEmpty: none.
  std::size_t GetSize() const;
  bool IsEmpty() const { return GetSize() == 0; }
  // Removes every comment.
  void Clear();

  // The same texts with the same markers.
  friend bool operator==(const DKConfigComments& a, const DKConfigComments& b) {
    return a.m_comments == b.m_comments && a.SameMarkers(b);
  }

private:
  friend struct DKConfigIO;
  bool SameMarkers(const DKConfigComments& other) const noexcept;
  // AddComment with the lock held.
  Iterator InsertComment(Iterator before, const DKString& text, DKChar marker);

  CommentVector m_comments;
  // One marker per comment, or empty while every marker is ';' (the usual case costs nothing).
  DKString m_markers;
};

// One key line: its comment block, key and value.
class DK_EXPORT DKConfigLine : public DKConfigLockable {
public:
  // An empty line, or key=value, without comments; copies take the key, the value and the
  // comments (a copy has no owner).
  DKConfigLine() = default;
  DKConfigLine(const DKString& key, const DKString& value) : m_key(key), m_value(value) {}
  DKConfigLine(const DKConfigLine&) = default;
  DKConfigLine(DKConfigLine&&) noexcept = default;
  DKConfigLine& operator=(const DKConfigLine&) = default;
  DKConfigLine& operator=(DKConfigLine&&) noexcept = default;
  ~DKConfigLine() override;

  // The key, as stored: read, and replace.
  DKString GetKey() const;
  void SetKey(const DKString& key);
  // The value's text: read, and replace (a number as its decimal text).
  DKString GetValue() const;
  void SetValue(const DKString& value);
  void SetValue(const DKChar* value) { SetValue(DKString(value)); }
  void SetValue(int value) { SetValue(static_cast<long long>(value)); }
  void SetValue(long value) { SetValue(static_cast<long long>(value)); }
  void SetValue(long long value);
  // The shortest text that reads back as the same double ("0.1", "1e+100").
  void SetValue(double value);
  // The value converted as DKString::AsLong / AsDouble convert it.
  long GetValueAsLong(bool* ok = nullptr) const;
  double GetValueAsDouble(bool* ok = nullptr) const;

  // The comment block in front of the line.
  DKConfigComments& GetComments() noexcept { return m_comments; }
  const DKConfigComments& GetComments() const noexcept { return m_comments; }
  // Empties the comments, the key and the value.
  void Clear();

  // Gives the line and its comments an owner.
  void SetOwner(const DKConfigLockableI* owner) override;

  // The same key, value and comments (keys compared with regard to case).
  friend bool operator==(const DKConfigLine& a, const DKConfigLine& b) {
    return a.m_key == b.m_key && a.m_value == b.m_value && a.m_comments == b.m_comments;
  }

private:
  friend struct DKConfigIO;
  friend class DKConfigSection;
  friend class DKConfigFile;
  DKConfigComments m_comments;
  DKString m_key;
  DKString m_value;
};

// One section: its comment block, its name and its key lines in file order.
class DK_EXPORT DKConfigSection : public DKConfigLockable {
public:
  typedef std::vector<DKConfigLine> LineVector;           // The key lines, in file order.
  typedef LineVector::iterator LineIterator;               // A position among the lines.
  typedef LineVector::const_iterator ConstLineIterator;    // A position in a section not changed.

  // An empty section without a name or with one; copies take the name, the comments and the
  // lines (a copy has no owner).
  DKConfigSection() = default;
  explicit DKConfigSection(const DKString& name) : m_name(name) {}
  DKConfigSection(const DKConfigSection&) = default;
  DKConfigSection(DKConfigSection&&) noexcept = default;
  // Assignment keeps this section's owner, and gives it to the lines taken over.
  DKConfigSection& operator=(const DKConfigSection& other);
  DKConfigSection& operator=(DKConfigSection&& other) noexcept;
  ~DKConfigSection() override;

  // The name, as stored: read, and replace.
  DKString GetName() const;
  void SetName(const DKString& name);
  // The comment block in front of the header.
  DKConfigComments& GetComments() noexcept { return m_comments; }
  const DKConfigComments& GetComments() const noexcept { return m_comments; }

  // The lines in order, for iteration while the caller holds the file's lock.
  LineIterator GetLinesBegin() { return m_lines.begin(); }
  LineIterator GetLinesEnd() { return m_lines.end(); }
  ConstLineIterator GetLinesBegin() const { return m_lines.begin(); }
  ConstLineIterator GetLinesEnd() const { return m_lines.end(); }
  LineIterator begin() { return m_lines.begin(); }
  LineIterator end() { return m_lines.end(); }
  ConstLineIterator begin() const { return m_lines.begin(); }
  ConstLineIterator end() const { return m_lines.end(); }
  // The number of lines.
  std::size_t GetLineCount() const;

  // The first line at or after `from` (the first line without it) whose key equals key
  // without regard to case; the end when there is none.
  LineIterator FindLine(const DKString& key);
  LineIterator FindLine(const DKString& key, LineIterator from);
  ConstLineIterator FindLine(const DKString& key) const;
  ConstLineIterator FindLine(const DKString& key, ConstLineIterator from) const;
  // Inserts a copy of line, or a new key=value line, before `before` (at the end without it);
  // returns its position.
  LineIterator AddLine(const DKConfigLine& line);
  LineIterator AddLine(const DKConfigLine& line, LineIterator before);
  LineIterator AddLine(const DKString& key, const DKString& value);
  LineIterator AddLine(const DKString& key, const DKString& value, LineIterator before);
  // Removes one line; returns the position after it.
  LineIterator DeleteLine(LineIterator position);
  // Removes the first line at or after `from` whose key matches; false when there is none.
  bool DeleteLine(const DKString& key);
  bool DeleteLine(const DKString& key, LineIterator from);
  // Empties the name, the comments and the lines.
  void Clear();

  // Gives the section, its comments and its lines an owner.
  void SetOwner(const DKConfigLockableI* owner) override;

  // The same name, comments and lines (names compared with regard to case).
  friend bool operator==(const DKConfigSection& a, const DKConfigSection& b) {
    return a.m_name == b.m_name && a.m_comments == b.m_comments && a.m_lines == b.m_lines;
  }

private:
  friend struct DKConfigIO;
  friend class DKConfigFile;
  LineIterator InsertLine(LineIterator before, DKConfigLine&& line);

  DKConfigComments m_comments;
  DKString m_name;
  LineVector m_lines;
};

// Something the reader met that the format does not take as a setting. Line numbers count
// from 1; a note about one line has the same first and last line.
struct DK_EXPORT DKConfigLoadNote {
  // What was met.
  enum Kind {
    KeyOverSeveralLines,   // Lines without "=" joined the key of the next "=" line.
    KeyBeforeFirstSection, // A key line before the first header: kept as text, not in the tree.
    HashLineAsText,        // A line starting with '#' read as text, as '#' is no comment marker.
    HeaderInsideKey,       // A line that looks like a section header is part of a key.
  };
  Kind kind = KeyOverSeveralLines; // What was met.
  std::size_t firstLine = 0;       // The first line concerned.
  std::size_t lastLine = 0;        // The last line concerned.

  // "lines 3-5: ..." or "line 3: ...", in English.
  DKString GetText() const;
  // The same kind and lines.
  friend bool operator==(const DKConfigLoadNote&, const DKConfigLoadNote&) = default;
};

// A configuration file loaded into an editable tree. Counted: hold it in a DKSmartPtr.
//
// On disk the file is UTF-8 (with or without a byte-order mark) or UTF-16 (with a byte-order
// mark, or without one when its NUL bytes show the byte order plainly). Lines end in LF or
// CR LF; the carriage returns right before a line feed belong to the line end. Saving writes the
// encoding the file was read with, and ends every line as the file's first line ends (UTF-8
// without a mark and LF for a new file).
//
// Only plain files are read and written: a FIFO, a socket or a device is refused at once and
// nothing waits on it.
class DK_EXPORT DKConfigFile : public DKRefCount, public DKConfigI, public DKConfigLockableI {
public:
  typedef std::vector<DKConfigSection> SectionVector;        // The sections, in file order.
  typedef SectionVector::iterator SectionIterator;            // A position among the sections.
  typedef SectionVector::const_iterator ConstSectionIterator; // A position in a file not changed.

  // The encoding of the file's text on disk.
  enum Encoding {
    Utf8 = 0,              // UTF-8 without a byte-order mark.
    Utf8WithBom = 1,       // UTF-8 after a byte-order mark.
    Utf16LE = 2,           // UTF-16 little-endian, with a byte-order mark.
    Utf16BE = 3,           // UTF-16 big-endian, with a byte-order mark.
    Utf16LEWithoutBom = 4, // UTF-16 little-endian without a mark.
    Utf16BEWithoutBom = 5, // UTF-16 big-endian without a mark.
  };
  // The line end a save writes.
  enum LineEnd {
    LineEndLF = 0,   // A line feed.
    LineEndCRLF = 1, // A carriage return and a line feed.
  };

  // At most this many load notes are kept; GetLoadNoteCount counts them all.
  static constexpr std::size_t maxLoadNotes = 1000;

  // A file object for path, loaded; null when the file cannot be read. A syntax error in the
  // file throws DKConfigStreamException. The second form reads the file with these comment
  // markers (see SetCommentMarkers).
  static DKSmartPtr<DKConfigFile> Load(const DKString& path);
  static DKSmartPtr<DKConfigFile> Load(const DKString& path, const DKString& commentMarkers);

  // An empty tree for the file name (nothing is read).
  explicit DKConfigFile(const DKString& path = DKString());
  ~DKConfigFile() override;
  // Not copyable: the items point at the file as their owner.
  DKConfigFile(const DKConfigFile&) = delete;
  DKConfigFile& operator=(const DKConfigFile&) = delete;

  // Replaces the tree, the leading text and the load notes by the parse of the file. False,
  // with all three unchanged, when the file cannot be read, is not a plain file, or its text
  // is not valid in its encoding (GetLastErrorText says why). A syntax error throws
  // DKConfigStreamException and also leaves them unchanged.
  bool Reload();
  // The same from the bytes of a file held in memory.
  bool ReloadFromBytes(const void* data, std::size_t size);

  // Writes the leading text and the tree over the file, in place. True when the whole file was
  // written. A failure part way (a full disk) can leave the file cut short; Save2 cannot.
  // Refuses a file this process may not write.
  bool Save() const;
  // Writes the leading text and the tree to a temporary file beside the file, flushes it to the
  // disk and renames it over the file: whatever happens, the file holds either the old or the
  // new text. Refuses, as Save does, a file this process may not write (a read-only file stays
  // read-only and unchanged); the folder must be writable too. The new file keeps the old one's
  // permissions, and its owner where the system allows it (a process that may not give files
  // away makes the new file its own). A symbolic link is followed and stays a link. A save
  // killed part way can leave the hidden temporary file behind; it is never read.
  bool Save2() const;
  // The bytes Save would write.
  bool SaveToBytes(std::string& out) const;
  // The three saves refuse, writing nothing, a tree that the file format cannot carry: a line
  // feed in a comment or a value, "]" in a section name, "=" in a key, a key that would read
  // back as a comment or a header, or a comment whose marker the file does not read.

  // The text in front of the first section header that the format leaves out of the tree: the
  // key lines there, with the comment and other lines between them, as read (every line ended
  // by a line feed). Every save writes it first, so nothing of it is lost; empty when the file
  // has no such lines.
  DKString GetLeadingText() const;
  // Drops the leading text: the next save no longer writes it.
  void ClearLeadingText();

  // The characters that start a comment line, ";" first. By default only ";", as the format
  // has it. Adding '#' (SetCommentMarkers(";#")) reads files of the wider INI family: lines
  // that start with '#' are comments then, kept and written back with their '#'. A marker
  // only starts a comment at the start of a line: "key=value # text" keeps "value # text" as
  // its value, and a line without "=" still joins the next key. Takes effect at the next
  // load. False, with nothing changed, for a marker that is not ASCII punctuation or is one of
  // "[", "]" and "=".
  bool SetCommentMarkers(const DKString& markers);
  DKString GetCommentMarkers() const;

  // What the last load that succeeded met but did not take as settings, in file order: keys
  // that span lines, key lines before the first header, '#' lines read as text, headers
  // swallowed by a key. At most maxLoadNotes of them; GetLoadNoteCount counts all.
  std::vector<DKConfigLoadNote> GetLoadNotes() const;
  std::size_t GetLoadNoteCount() const;

  // Why the last Reload, ReloadFromBytes, Save, Save2 or SaveToBytes failed; empty after a success.
  DKString GetLastErrorText() const;

  // The path that Reload reads and the saves write: read, and replace.
  DKString GetFileName() const;
  void SetFileName(const DKString& path);
  // The encoding and the line end the saves write (those the file was read with, after a
  // load): read, and replace.
  Encoding GetEncoding() const;
  void SetEncoding(Encoding encoding);
  LineEnd GetLineEnd() const;
  void SetLineEnd(LineEnd lineEnd);

  // The sections in order, for iteration while the caller holds the file's lock.
  SectionIterator GetSectionsBegin() { return m_sections.begin(); }
  SectionIterator GetSectionsEnd() { return m_sections.end(); }
  ConstSectionIterator GetSectionsBegin() const { return m_sections.begin(); }
  ConstSectionIterator GetSectionsEnd() const { return m_sections.end(); }
  SectionIterator begin() { return m_sections.begin(); }
  SectionIterator end() { return m_sections.end(); }
  ConstSectionIterator begin() const { return m_sections.begin(); }
  ConstSectionIterator end() const { return m_sections.end(); }
  // The number of sections.
  std::size_t GetSectionCount() const;

  // The first section at or after `from` (the first section without it) whose name equals
  // name without regard to case; the end when there is none.
  SectionIterator FindSection(const DKString& name);
  SectionIterator FindSection(const DKString& name, SectionIterator from);
  ConstSectionIterator FindSection(const DKString& name) const;
  ConstSectionIterator FindSection(const DKString& name, ConstSectionIterator from) const;
  // Inserts a new section, or a copy of section, before `before` (at the end without it);
  // returns its position.
  SectionIterator AddSection(const DKString& name);
  SectionIterator AddSection(const DKString& name, SectionIterator before);
  SectionIterator AddSection(const DKConfigSection& section);
  SectionIterator AddSection(const DKConfigSection& section, SectionIterator before);
  // Removes one section; returns the position after it.
  SectionIterator DeleteSection(SectionIterator position);
  // Removes the first section at or after `from` whose name matches; false when there is none.
  bool DeleteSection(const DKString& name);
  bool DeleteSection(const DKString& name, SectionIterator from);
  // Removes every section. The leading text stays (ClearLeadingText drops it).
  void Clear();

  // The value of the first line whose key matches in the first section whose name matches.
  DKString GetString(const DKString& section, const DKString& key,
                     const DKString& defaultValue = DKString()) const override;
  long GetLong(const DKString& section, const DKString& key, long defaultValue = 0) const override;

  // The UTF-8 forms of the look-ups (DKConfigI).
  using DKConfigI::GetLong;
  using DKConfigI::GetString;
  // Sets the value of the first matching line. A missing line is added at the end of the
  // section; a missing section is added after the last section (in front of the comments
  // that end the file, if any). SetLong writes the decimal text.
  void SetString(const DKString& section, const DKString& key, const DKString& value);
  void SetLong(const DKString& section, const DKString& key, long value);
  // The same with UTF-8 names for either or both.
  template <class Section, class Key>
    requires DKConfigNarrowName<Section, Key>
  void SetString(const Section& section, const Key& key, const DKString& value) {
    SetString(DKTextArg(section).Get(), DKTextArg(key).Get(), value);
  }
  template <class Section, class Key>
    requires DKConfigNarrowName<Section, Key>
  void SetLong(const Section& section, const Key& key, long value) {
    SetLong(DKTextArg(section).Get(), DKTextArg(key).Get(), value);
  }

  // The file's lock, shared by all its items. Recursive.
  void Lock() const override;
  void Unlock() const override;

private:
  friend struct DKConfigIO;
  // Takes over a freshly read tree whose items this file owns already, with what the reader
  // kept apart and noted.
  void Adopt(SectionVector& sections, DKString& leadingText, std::vector<DKConfigLoadNote>& notes,
             std::size_t noteCount);
  bool Parse(const unsigned char* data, std::size_t size, DKFileBytes* pages);
  bool Serialise(std::string& out) const;
  // Save (in place) and Save2 (atomically).
  bool WriteToDisk(bool atomically) const;
  // The value of the first matching line of the first matching section; the lock is held.
  const DKString* FindValue(const DKString& section, const DKString& key) const;
  bool Fail(const DKString& reason) const;

  mutable std::recursive_mutex m_criticalSection;
  DKString m_fileName;
  SectionVector m_sections;
  Encoding m_encoding = Utf8;
  LineEnd m_lineEnd = LineEndLF;
  DKString m_leadingText;
  DKString m_commentMarkers;
  std::vector<DKConfigLoadNote> m_notes;
  std::size_t m_noteCount = 0;
  mutable DKString m_lastError;
};

// Stream reading and writing of every item. Narrow streams carry UTF-8 text; wide streams
// carry wchar_t text (UTF-32 on Linux, UTF-16 on Windows). Line ends are read as in a file (the
// carriage returns right before a line feed belong to it) and written as line feeds. A syntax
// error throws DKConfigStreamException; reading a whole file replaces the tree, the leading
// text and the load notes only when the whole text was read, with the file's comment markers.
// Writing a whole file writes its leading text first. The items' readers know only ";".
// Reading a comment block reads the comment and empty lines in front of the next item;
// reading a line reads its comment block and the key line; reading a section reads its
// comment block and its header (not its lines: a file is read as a whole).
DK_EXPORT std::istream& operator>>(std::istream& in, DKConfigComments& comments);
DK_EXPORT std::istream& operator>>(std::istream& in, DKConfigLine& line);
DK_EXPORT std::istream& operator>>(std::istream& in, DKConfigSection& section);
DK_EXPORT std::istream& operator>>(std::istream& in, DKConfigFile& file);
DK_EXPORT std::wistream& operator>>(std::wistream& in, DKConfigComments& comments);
DK_EXPORT std::wistream& operator>>(std::wistream& in, DKConfigLine& line);
DK_EXPORT std::wistream& operator>>(std::wistream& in, DKConfigSection& section);
DK_EXPORT std::wistream& operator>>(std::wistream& in, DKConfigFile& file);
DK_EXPORT std::ostream& operator<<(std::ostream& out, const DKConfigComments& comments);
DK_EXPORT std::ostream& operator<<(std::ostream& out, const DKConfigLine& line);
DK_EXPORT std::ostream& operator<<(std::ostream& out, const DKConfigSection& section);
DK_EXPORT std::ostream& operator<<(std::ostream& out, const DKConfigFile& file);
DK_EXPORT std::wostream& operator<<(std::wostream& out, const DKConfigComments& comments);
DK_EXPORT std::wostream& operator<<(std::wostream& out, const DKConfigLine& line);
DK_EXPORT std::wostream& operator<<(std::wostream& out, const DKConfigSection& section);
DK_EXPORT std::wostream& operator<<(std::wostream& out, const DKConfigFile& file);

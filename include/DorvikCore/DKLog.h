// The log manager: named channels that text is published on, subscribers that take the text of
// the channels they subscribed to (each at a level), a console and a file subscriber, and
// DKLogStream, the output stream through which a program writes to a channel.
//
//   DKLogManager& logs = DKLogManager::Get();
//   const DKLogManager::ChannelId channel = logs.AddChannel(DK_T("Orders"));
//   logs.Subscribe(channel, new DKConsoleLogSubscriber, 1);
//   logs.Subscribe(channel, new DKFileLogSubscriber(DK_T("orders.log")), 2);
//   DKLogStream out(channel);
//   out << "shown on the console and in the file" << std::endl;
//   out.SetLevel(2);
//   out << "only in the file" << std::endl;
//
// A subscriber at level L takes text published at level l when l <= L: level 0 is silence for
// a subscriber, and text published at level 0 reaches every subscriber.
//
// DKLogger writes lines with a time stamp and a severity to a channel:
//
//   DKLogger log(DK_T("Orders"));                  // the channel "Orders"
//   logs.Subscribe(log.GetChannel(), new DKFileLogSubscriber(DK_T("orders.log")), 2);
//   log.Info("loaded %d orders from %s", count, path);
//   // 2024-03-01T14:05:09.042+01:00 INFO loaded 42 orders from /srv/orders.db
//
// A severity is published at a numeric level (DKLogLevelOf): error, warning and info at 1, the
// normal level of an application's console (/trace:1), debug at 2 (/trace:2) and trace at 3.
// Whether a line would be written is known from two loads, so that a line nobody takes costs
// neither its formatting nor a lock.
#pragma once

#include <DorvikCore/DKFormatArgs.h>
#include <DorvikCore/DKRefCount.h>
#include <DorvikCore/DKString.h>
#include <DorvikCore/DKTypes.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <memory>
#include <mutex>
#include <ostream>
#include <streambuf>
#include <string>
#include <string_view>

// Takes the text published on the channels it is subscribed to.
class DK_EXPORT DKLogSubscriberI : public DKRefCount {
public:
  ~DKLogSubscriberI() override;
  // One piece of UTF-8 text: a whole line ending in "\n", or the part of a line written so far
  // when a stream was flushed in the middle of it. Called on the publishing thread, without
  // any lock of the manager held; a subscriber serialises its own output.
  virtual void Write(std::uint32_t channel, std::uint32_t level, std::string_view text) = 0;
  // Whether the subscriber can take text; the manager refuses to subscribe one that cannot.
  virtual bool IsGood() const;
};

// Writes to the process's console (DKLockedCOUT), each piece whole.
class DK_EXPORT DKConsoleLogSubscriber : public DKLogSubscriberI {
public:
  ~DKConsoleLogSubscriber() override;
  // Writes the text to the console under its lock.
  void Write(std::uint32_t channel, std::uint32_t level, std::string_view text) override;
};

// Writes to a file, flushing after every piece, so that what was written is in the file even
// when the process ends abruptly. The file is created when missing. With a rotation set, the
// file is renamed once a line would take it past its size, and a new one is started.
class DK_EXPORT DKFileLogSubscriber : public DKLogSubscriberI {
public:
  // What opening does with a file that exists.
  enum OpenMode {
    Append = 0,   // Writes after its content.
    Truncate = 1, // Empties it first.
  };

  // Opens the file at once; IsGood and GetErrorText tell whether that worked.
  explicit DKFileLogSubscriber(const DKString& fileName, OpenMode mode = Append);
  // Closes the file.
  ~DKFileLogSubscriber() override;
  // Not copyable: the object owns the open file.
  DKFileLogSubscriber(const DKFileLogSubscriber&) = delete;
  DKFileLogSubscriber& operator=(const DKFileLogSubscriber&) = delete;

  // Appends the text and flushes (nothing when the file is not open). Safe from any thread.
  void Write(std::uint32_t channel, std::uint32_t level, std::string_view text) override;
  // Whether the file is open.
  bool IsGood() const override;
  // The name given to the constructor.
  const DKString& GetFileName() const noexcept { return m_fileName; }
  // Whether both are open on one file on the disk, whatever names they were given.
  bool IsSameFile(const DKFileLogSubscriber& other) const;
  // The last problem with the file: why it could not be opened, or rotated; empty when none.
  DKString GetErrorText() const;

  // Size-based rotation. Before a line that would take the file past maxBytes is written, the
  // file becomes "<name>.1", an older "<name>.1" becomes "<name>.2", and so on up to
  // "<name>.<keepCount>" (the oldest goes), and a new file is started; keepCount 0 keeps no old
  // file. Lines are never split between files: a line longer than maxBytes fills a file alone,
  // and a line that comes in pieces (a stream flushed in mid-line) may pass maxBytes by its rest.
  // maxBytes 0 (the default) switches rotation off. When a rename fails, the file goes on
  // growing, nothing is lost, GetErrorText tells why, and rotation rests until set again.
  void SetRotation(std::uint64_t maxBytes, unsigned keepCount);

private:
  void Rotate();

  DKString m_fileName;
  std::string m_path;
  DKString m_errorText;
  mutable std::mutex m_lock; // guards everything below and m_errorText
  std::FILE* m_file = nullptr;
  std::uint64_t m_size = 0;
  std::uint64_t m_maxBytes = 0;
  unsigned m_keepCount = 0;
  bool m_atLineStart = true;
};

// The process's log manager. Every operation is safe from any thread.
class DK_EXPORT DKLogManager {
public:
  typedef std::uint32_t ChannelId; // A channel's id.
  // The id no channel has.
  static constexpr ChannelId NoChannel = 0;

  // The process's manager, created on first use and never destroyed, so that streams still
  // work from static destructors.
  static DKLogManager& Get();

  // A new channel (every call makes one, also for a name in use); its id is never reused.
  ChannelId AddChannel(const DKString& name);
  // Drops the channel and its subscriptions; text published on it afterwards goes nowhere.
  // False for an unknown channel.
  bool RemoveChannel(ChannelId channel);
  // Whether the channel exists.
  bool HasChannel(ChannelId channel) const;
  // The first channel of that name (compared without regard to case); NoChannel when none.
  ChannelId FindChannel(const DKString& name) const;
  // The first channel of that name, added when there is none (in one step: two threads asking
  // for one name get one channel).
  ChannelId FindOrAddChannel(const DKString& name);
  // Empty for an unknown channel.
  DKString GetChannelName(ChannelId channel) const;

  // Subscribes at a level; a subscriber subscribed already keeps its place and takes the new
  // level. False for an unknown channel, a null subscriber or one that is not good.
  bool Subscribe(ChannelId channel, const DKSmartPtr<DKLogSubscriberI>& subscriber, std::uint32_t level);
  // Changes the subscriber's level, or ends its subscription (the channel lets go of it). False
  // when the subscriber is not subscribed to the channel.
  bool ChangeSubscriptionLevel(ChannelId channel, const DKLogSubscriberI* subscriber, std::uint32_t level);
  bool Unsubscribe(ChannelId channel, const DKLogSubscriberI* subscriber);
  // The number of the channel's subscribers; 0 for an unknown channel.
  std::size_t GetSubscriberCount(ChannelId channel) const;
  // The subscriber's level on the channel; false when it is not subscribed.
  bool GetSubscriptionLevel(ChannelId channel, const DKLogSubscriberI* subscriber, std::uint32_t& level) const;

  // Whether text at this level would reach a subscriber of the channel.
  bool IsLogged(ChannelId channel, std::uint32_t level) const;

  // A channel's gate: tells without a lock whether text at a level would reach a subscriber.
  // It follows the channel's subscriptions, and closes for good when the channel is removed.
  class Gate {
  public:
    // Whether a subscriber takes text at this level (one relaxed load).
    bool IsOpen(std::uint32_t level) const noexcept { return level < m_reach.load(std::memory_order_relaxed); }

  private:
    friend class DKLogManager;
    std::atomic<std::uint64_t> m_reach{0}; // the highest subscriber level + 1; 0 without one
  };
  // The channel's gate; a gate that never opens for an unknown channel.
  std::shared_ptr<const Gate> GetGate(ChannelId channel) const;
  // Hands the text to every subscriber of the channel whose level is at least level, in the
  // order they subscribed.
  void Publish(ChannelId channel, std::uint32_t level, std::string_view text);

  // The error-log file: the folder and the file name the application chose at start-up.
  void SetErrorLogFile(const DKString& folder, const DKString& fileName);
  // The complete path; empty while none was set.
  DKString GetErrorLogFile() const;
  // Appends the text and a line end to the error-log file (created when missing). False when
  // no file was set or it cannot be written.
  bool AppendToErrorLog(const DKString& text);

  // Not copyable: there is one manager, Get().
  DKLogManager(const DKLogManager&) = delete;
  DKLogManager& operator=(const DKLogManager&) = delete;

private:
  DKLogManager();
  ~DKLogManager();

  struct Impl;
  std::unique_ptr<Impl> m_impl;
};

// The stream buffer of DKLogStream: collects text and publishes it line by line on its channel
// at its level; a flush publishes the part of a line written so far. Not shared between
// threads: each thread writes through its own buffer.
class DK_EXPORT DKLogStreamBuf : public std::streambuf {
public:
  // A buffer on the channel that publishes at level.
  explicit DKLogStreamBuf(DKLogManager::ChannelId channel, std::uint32_t level = 1);
  // Publishes the part of a line still pending.
  ~DKLogStreamBuf() override;

  // The channel, and the level text is published at.
  DKLogManager::ChannelId GetChannel() const noexcept { return m_channel; }
  std::uint32_t GetLevel() const noexcept { return m_level; }
  // Publishes what is pending at the old level first, so that every piece keeps the level it
  // was written at.
  void SetLevel(std::uint32_t level);

protected:
  // The std::streambuf hooks: take a character or a run of them (publishing every completed
  // line), and publish what is pending (a flush).
  int_type overflow(int_type ch) override;
  std::streamsize xsputn(const char* text, std::streamsize count) override;
  int sync() override;

private:
  void Publish(std::string_view text);

  DKLogManager::ChannelId m_channel;
  std::uint32_t m_level;
  std::string m_pending;
};

// An output stream on a log channel (UTF-8 text; DKString prints as UTF-8).
class DK_EXPORT DKLogStream : public std::ostream {
public:
  // A stream on the channel whose lines are published at level. One thread writes to one stream.
  explicit DKLogStream(DKLogManager::ChannelId channel, std::uint32_t level = 1);
  // Publishes the part of a line still pending.
  ~DKLogStream() override;
  // Not copyable: the stream owns its buffer.
  DKLogStream(const DKLogStream&) = delete;
  DKLogStream& operator=(const DKLogStream&) = delete;

  // The channel, and the level text is published at.
  DKLogManager::ChannelId GetChannel() const noexcept { return m_buffer.GetChannel(); }
  std::uint32_t GetLevel() const noexcept { return m_buffer.GetLevel(); }
  // Changes the level of what is written from now on (DKLogStreamBuf::SetLevel).
  void SetLevel(std::uint32_t level) { m_buffer.SetLevel(level); }

  // The calling thread's own stream on the channel, made on first use and kept until the
  // thread ends; several threads write to one channel this way without sharing a stream.
  static DKLogStream& ForThread(DKLogManager::ChannelId channel);

private:
  DKLogStreamBuf m_buffer;
};

// The named severities of DKLogger lines, most severe first.
enum class DKLogSeverity : std::uint8_t {
  Error,   // A failure: "ERROR", level 1.
  Warning, // Something to look at: "WARNING", level 1.
  Info,    // What the program does: "INFO", level 1.
  Debug,   // Details for the developer: "DEBUG", level 2.
  Trace,   // Every step: "TRACE", level 3.
};

// The numeric level a severity is published at: error, warning and info at 1 (normal), debug at
// 2 (maximum), trace at 3. A subscriber at level L takes the severities whose level is <= L.
constexpr std::uint32_t DKLogLevelOf(DKLogSeverity severity) noexcept {
  return severity <= DKLogSeverity::Info ? 1u : severity == DKLogSeverity::Debug ? 2u : 3u;
}
// "ERROR", "WARNING", "INFO", "DEBUG", "TRACE"; "?" for a value out of range.
DK_EXPORT const char* DKLogSeverityName(DKLogSeverity severity) noexcept;
// The severity of a name, compared without regard to case ("warning" or "warn", "info" ...), as
// a setting in a configuration file gives it. False, with severity untouched, for another text.
DK_EXPORT bool DKLogSeverityFromName(std::string_view name, DKLogSeverity& severity) noexcept;

// Writes formatted lines of a severity to a channel, each laid out by the logger's pattern:
//   %t  the time stamp, ISO 8601 with milliseconds: 2024-03-01T14:05:09.042+01:00 in local
//       time (the default) or 2024-03-01T13:05:09.042Z in UTC
//   %s  the severity's name          %c  the channel's name
//   %m  the message                  %T  the writing thread's id
//   %%  a "%"; any other "%" is written as it stands.
// The default pattern is "%t %s %m". Each line is published whole with its "\n"; one "\n" that
// ends the message is dropped. The format and its arguments follow DKFormatNarrow (UTF-8,
// "%s" takes any text type). A line is formatted only when its severity is within the logger's
// threshold and a subscriber of the channel takes its level. Safe from any thread.
class DK_EXPORT DKLogger {
public:
  // The zone of the time stamps.
  enum class TimeZone {
    Local, // The process's local zone, with its offset.
    Utc,   // UTC, marked "Z".
  };

  // A logger on the channel of that name (added when there is none), or on a channel by id.
  explicit DKLogger(const DKString& channelName);
  explicit DKLogger(DKLogManager::ChannelId channel);
  ~DKLogger();
  // Not copyable: make another logger on the same channel.
  DKLogger(const DKLogger&) = delete;
  DKLogger& operator=(const DKLogger&) = delete;

  // Log at that severity: Error(...) is Log(DKLogSeverity::Error, ...).
  template <class... Args>
  void Error(const char* format, const Args&... args) {
    Log(DKLogSeverity::Error, format, args...);
  }
  template <class... Args>
  void Warning(const char* format, const Args&... args) {
    Log(DKLogSeverity::Warning, format, args...);
  }
  template <class... Args>
  void Info(const char* format, const Args&... args) {
    Log(DKLogSeverity::Info, format, args...);
  }
  template <class... Args>
  void Debug(const char* format, const Args&... args) {
    Log(DKLogSeverity::Debug, format, args...);
  }
  template <class... Args>
  void Trace(const char* format, const Args&... args) {
    Log(DKLogSeverity::Trace, format, args...);
  }
  // Writes one line of that severity when IsEnabled(severity).
  template <class... Args>
  void Log(DKLogSeverity severity, const char* format, const Args&... args) {
    if (IsEnabled(severity))
      Write(severity, format, DKMakeFormatArgs(args...));
  }

  // Whether a line of this severity would be written: within the threshold, and taken by a
  // subscriber of the channel. Two relaxed loads; lets a caller skip building its arguments.
  bool IsEnabled(DKLogSeverity severity) const noexcept {
    return severity <= m_threshold.load(std::memory_order_relaxed) && m_gate->IsOpen(DKLogLevelOf(severity));
  }

  // Lines less severe than the threshold are dropped here, whoever subscribes (default: none
  // is dropped, Trace): set, and read.
  void SetThreshold(DKLogSeverity threshold) noexcept { m_threshold.store(threshold, std::memory_order_relaxed); }
  DKLogSeverity GetThreshold() const noexcept { return m_threshold.load(std::memory_order_relaxed); }
  // The zone of the time stamps (default: Local): set, and read.
  void SetTimeZone(TimeZone zone) noexcept { m_utc.store(zone == TimeZone::Utc, std::memory_order_relaxed); }
  TimeZone GetTimeZone() const noexcept { return m_utc.load(std::memory_order_relaxed) ? TimeZone::Utc : TimeZone::Local; }
  // The layout of each line (see above); an empty pattern writes the message alone: set, and read.
  void SetPattern(const DKString& pattern);
  DKString GetPattern() const;

  // The logger's channel.
  DKLogManager::ChannelId GetChannel() const noexcept { return m_channel; }

  // The line Log would write at that moment for that message, without its "\n".
  std::string FormatLine(DKLogSeverity severity, std::string_view message,
                         std::chrono::system_clock::time_point when) const;
  // An ISO 8601 time stamp with milliseconds, in the process's local zone with its offset
  // ("+01:00") or in UTC ("Z").
  static std::string TimeStamp(std::chrono::system_clock::time_point when, TimeZone zone);

private:
  void Write(DKLogSeverity severity, const char* format, DKFormatArgList args);

  struct Layout;
  DKLogManager::ChannelId m_channel;
  DKString m_channelName;
  std::shared_ptr<const DKLogManager::Gate> m_gate;
  std::atomic<DKLogSeverity> m_threshold{DKLogSeverity::Trace};
  std::atomic<bool> m_utc{false};
  mutable std::mutex m_layoutLock; // guards m_layout (the pointer; a layout never changes)
  std::shared_ptr<const Layout> m_layout;
};

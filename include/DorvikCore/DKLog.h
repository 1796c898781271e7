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
#pragma once

#include <DorvikCore/DKRefCount.h>
#include <DorvikCore/DKString.h>
#include <DorvikCore/DKTypes.h>

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
  void Write(std::uint32_t channel, std::uint32_t level, std::string_view text) override;
};

// Writes to a file, flushing after every piece, so that what was written is in the file even
// when the process ends abruptly. The file is created when missing.
class DK_EXPORT DKFileLogSubscriber : public DKLogSubscriberI {
public:
  enum OpenMode { Append = 0, Truncate = 1 };

  explicit DKFileLogSubscriber(const DKString& fileName, OpenMode mode = Append);
  ~DKFileLogSubscriber() override;
  DKFileLogSubscriber(const DKFileLogSubscriber&) = delete;
  DKFileLogSubscriber& operator=(const DKFileLogSubscriber&) = delete;

  void Write(std::uint32_t channel, std::uint32_t level, std::string_view text) override;
  // Whether the file is open.
  bool IsGood() const override;
  const DKString& GetFileName() const noexcept { return m_fileName; }
  // Whether both are open on one file on the disk, whatever names they were given.
  bool IsSameFile(const DKFileLogSubscriber& other) const;
  // Why the file could not be opened; empty when it is open.
  const DKString& GetErrorText() const noexcept { return m_errorText; }

private:
  DKString m_fileName;
  DKString m_errorText;
  mutable std::mutex m_lock; // guards m_file
  std::FILE* m_file = nullptr;
};

// The process's log manager. Every operation is safe from any thread.
class DK_EXPORT DKLogManager {
public:
  typedef std::uint32_t ChannelId;
  // The id no channel has.
  static constexpr ChannelId NoChannel = 0;

  // The process's manager, created on first use and never destroyed, so that streams still
  // work from static destructors.
  static DKLogManager& Get();

  // A new channel (every call makes one, also for a name in use); its id is never reused.
  ChannelId AddChannel(const DKString& name);
  // Drops the channel and its subscriptions; text published on it afterwards goes nowhere.
  bool RemoveChannel(ChannelId channel);
  bool HasChannel(ChannelId channel) const;
  // The first channel of that name (compared without regard to case); NoChannel when none.
  ChannelId FindChannel(const DKString& name) const;
  // Empty for an unknown channel.
  DKString GetChannelName(ChannelId channel) const;

  // Subscribes at a level; a subscriber subscribed already keeps its place and takes the new
  // level. False for an unknown channel, a null subscriber or one that is not good.
  bool Subscribe(ChannelId channel, const DKSmartPtr<DKLogSubscriberI>& subscriber, std::uint32_t level);
  // False when the subscriber is not subscribed to the channel.
  bool ChangeSubscriptionLevel(ChannelId channel, const DKLogSubscriberI* subscriber, std::uint32_t level);
  bool Unsubscribe(ChannelId channel, const DKLogSubscriberI* subscriber);
  std::size_t GetSubscriberCount(ChannelId channel) const;
  // The subscriber's level on the channel; false when it is not subscribed.
  bool GetSubscriptionLevel(ChannelId channel, const DKLogSubscriberI* subscriber, std::uint32_t& level) const;

  // Whether text at this level would reach a subscriber of the channel.
  bool IsLogged(ChannelId channel, std::uint32_t level) const;
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
  explicit DKLogStreamBuf(DKLogManager::ChannelId channel, std::uint32_t level = 1);
  ~DKLogStreamBuf() override;

  DKLogManager::ChannelId GetChannel() const noexcept { return m_channel; }
  std::uint32_t GetLevel() const noexcept { return m_level; }
  // Publishes what is pending at the old level first, so that every piece keeps the level it
  // was written at.
  void SetLevel(std::uint32_t level);

protected:
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
  explicit DKLogStream(DKLogManager::ChannelId channel, std::uint32_t level = 1);
  // Publishes the part of a line still pending.
  ~DKLogStream() override;
  DKLogStream(const DKLogStream&) = delete;
  DKLogStream& operator=(const DKLogStream&) = delete;

  DKLogManager::ChannelId GetChannel() const noexcept { return m_buffer.GetChannel(); }
  std::uint32_t GetLevel() const noexcept { return m_buffer.GetLevel(); }
  void SetLevel(std::uint32_t level) { m_buffer.SetLevel(level); }

  // The calling thread's own stream on the channel, made on first use and kept until the
  // thread ends; several threads write to one channel this way without sharing a stream.
  static DKLogStream& ForThread(DKLogManager::ChannelId channel);

private:
  DKLogStreamBuf m_buffer;
};

// Errors of the shared-memory record store, and the Reporter that tells about
// corruption.
//
// Which failure is what:
// - Shm::PathError: a name or path the store must refuse (a component that is
//   empty, ".", "..", holds a '/' or a character outside [A-Za-z0-9._:-], or
//   starts with '.', or a name too long for the file system), a symbolic link
//   / non-directory where the store walks, or a file it must not use (see
//   "Odd and foreign files" in Store.h). Nothing was created.
// - Shm::LockedError: the instance already has a writer (another process, or
//   another handle of this process).
// - Shm::CollectionFullError: a new key did not fit; nothing changed.
// - Shm::NoSpaceError: the file system under the store is full. A mount
//   throws it with nothing created and nothing committed changed; an insert
//   of a new key throws it like a full collection (it is a
//   CollectionFullError), with nothing changed.
// - Shm::CorruptionError: a record (or a file) failed its checks. Callers
//   catch it and hand e.what() to the collection's doCorruptionDetected(),
//   which reports it, counts it and drops the record.
// - Shm::LayoutError: a reader found a file of another type or layout.
// - Shm::NotFoundError: a reader asked for an instance or entity that is not
//   on disk.
// - Shm::Error: any other refused request or failed system call.
// Broken invariants of the caller (mutating through a closed handle, writing
// through a read-only one) are assertions.
//
// Corruption and other events an operator should hear of go to the process's
// Reporter, one line each; the default writes to stderr:
//
//   struct Capture : Shm::Reporter {
//     void corruption(const std::string &m) override { lines.push_back(m); }
//     std::vector<std::string> lines;
//   } capture;
//   Shm::reporterIs(&capture);   // ... and reporterIs(nullptr) before it dies
#pragma once

#include <cstdint>
#include <string>

#include "platform/Export.h"
#include "platform/framework/Errors.h"

namespace Shm {

class MICA_PLATFORM_API Error : public Fwk::Exception {
public:
  using Fwk::Exception::Exception;
  ~Error() override;
};

class MICA_PLATFORM_API PathError : public Error {
public:
  using Error::Error;
  ~PathError() override;
};

class MICA_PLATFORM_API LockedError : public Error {
public:
  // holderPid 0: unknown.
  LockedError(const std::string &what, int holderPid);
  ~LockedError() override;
  int holderPid() const noexcept { return holderPid_; }

private:
  int holderPid_;
};

class MICA_PLATFORM_API CollectionFullError : public Error {
public:
  using Error::Error;
  ~CollectionFullError() override;
};

class MICA_PLATFORM_API NoSpaceError : public CollectionFullError {
public:
  using CollectionFullError::CollectionFullError;
  ~NoSpaceError() override;
};

class MICA_PLATFORM_API CorruptionError : public Error {
public:
  static constexpr std::uint32_t kNoSlot = ~std::uint32_t{0};
  // The message names the file, the collection (if any) and the slot (if
  // any), followed by `detail`.
  CorruptionError(const std::string &file, const std::string &collection,
                  std::uint32_t slot, const std::string &detail);
  ~CorruptionError() override;
  const std::string &file() const noexcept { return file_; }
  const std::string &collection() const noexcept { return collection_; }
  std::uint32_t slot() const noexcept { return slot_; }

private:
  std::string file_;
  std::string collection_;
  std::uint32_t slot_;
};

class MICA_PLATFORM_API LayoutError : public Error {
public:
  using Error::Error;
  ~LayoutError() override;
};

class MICA_PLATFORM_API NotFoundError : public Error {
public:
  using Error::Error;
  ~NotFoundError() override;
};

// Receives the store's reports. Called on the thread that found the problem;
// must not call back into the store.
class MICA_PLATFORM_API Reporter {
public:
  virtual ~Reporter();
  // A record, a header or a control word failed its checks.
  virtual void corruption(const std::string &message) = 0;
  // Not corruption, but worth an operator's notice: a collection recreated
  // empty (wiped), a crashed change recovered at mount.
  virtual void notice(const std::string &message);
};

// The process's reporter.
MICA_PLATFORM_API Reporter &reporter() noexcept;
// Installs `r` (which must outlive its use); nullptr restores the default,
// which prints one line per report to stderr.
MICA_PLATFORM_API void reporterIs(Reporter *r) noexcept;

} // namespace Shm

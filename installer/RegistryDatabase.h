// The registry's SQLite database: one connection, its prepared statements and
// its transactions, owned by RAII objects.
//
// A read-write connection runs in WAL mode with a busy timeout, so readers in
// other processes (`mavrel apps`) go on while an install writes. Commits are
// "synchronous=NORMAL": a committed transaction survives the process being
// killed at any point (it is in the WAL, which the kernel keeps), and the
// database file itself can never be damaged by a crash or a power loss; only
// the last commits before a power loss may be lost. See the durability notes
// of EmbeddedInstallerService.h for why no commit waits for the disk.
//
// Error contract: functions returning bool or an optional give false/nullopt
// and store a "CVInstallerErrorDomain" record (code
// kRegistryDatabaseErrorCode) in `*error`; its description names the database
// file, what was being done and SQLite's message. A database that is damaged
// or is not a database gets a description saying so; it is never replaced
// or repaired here.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>

#include "platform/Error.h"
#include "platform/Value.h"

struct sqlite3;
struct sqlite3_stmt;

namespace mavrel_installer {

class RegistryDatabase;

// Whether `error` says that a read-only reader met a write that was cut off
// before it committed (a hot rollback journal beside the database): nothing
// can be read until a read-write opening rolls it back.
bool holdsCutWrite(const CVError& error);

// Whether the database at `path` has a hot rollback journal left by its very
// first write (the switch of a new, empty database to write-ahead logging):
// nothing was ever committed, so the registry holds nothing yet. Any other
// journal, or none, answers false.
bool holdsOnlyACutFirstWrite(const std::string& path);

// One prepared statement. Use it through a Statement::Use, which resets the
// statement when it goes away, so that no statement keeps a read snapshot
// open between calls.
class Statement {
 public:
  Statement() = default;
  Statement(RegistryDatabase& database, sqlite3_stmt* statement)
      : database_(&database), statement_(statement) {}
  ~Statement();
  Statement(Statement&& other) noexcept;
  Statement& operator=(Statement&& other) noexcept;
  Statement(const Statement&) = delete;
  Statement& operator=(const Statement&) = delete;

  bool valid() const { return statement_ != nullptr; }

  class Use {
   public:
    explicit Use(Statement& statement) : statement_(statement) {}
    ~Use();
    Use(const Use&) = delete;
    Use& operator=(const Use&) = delete;

    // Parameters are numbered from 1; values are copied.
    Use& bind(int index, std::string_view text);
    Use& bind(int index, std::int64_t value);
    Use& bindNull(int index);
    Use& bindBlob(int index, std::span<const std::uint8_t> bytes);
    // Text, or null when `text` is empty.
    Use& bindOptional(int index, std::string_view text);

    // True with a row to read; false at the end or on failure (`*error` set
    // only on failure).
    bool next(CVError* error);
    // Runs a statement that returns no rows.
    bool run(CVError* error);

    // Columns are numbered from 0. A null text column reads as "".
    std::string text(int column) const;
    std::int64_t integer(int column) const;
    bool isNull(int column) const;
    CVData blob(int column) const;

   private:
    Statement& statement_;
    bool failed_ = false;
  };

 private:
  friend class Use;
  RegistryDatabase* database_ = nullptr;
  sqlite3_stmt* statement_ = nullptr;
};

class RegistryDatabase {
 public:
  // Immutable reads like ReadOnly but writes nothing at all, not even the
  // "-wal" and "-shm" companions: only for a database that nobody writes
  // while it is open and whose WAL holds nothing (there is no "-wal" file).
  enum class Access { ReadWrite, ReadOnly, Immutable };

  // Opens (ReadWrite: creating when missing) the database at `path`, never
  // following a symbolic link there. ReadWrite also switches to WAL mode,
  // sets the busy timeout and turns foreign keys on.
  static std::unique_ptr<RegistryDatabase> open(const std::string& path, Access access,
                                                CVError* error);
  ~RegistryDatabase();
  RegistryDatabase(const RegistryDatabase&) = delete;
  RegistryDatabase& operator=(const RegistryDatabase&) = delete;

  const std::string& path() const { return path_; }
  Access access() const { return access_; }

  // Runs one or more statements that return no rows.
  bool execute(const char* sql, CVError* error);
  std::optional<Statement> prepare(std::string_view sql, CVError* error);
  // The value of a pragma or other one-value query, as text.
  std::optional<std::string> queryText(const char* sql, CVError* error);

  // Whether closing the last connection checkpoints the WAL into the
  // database (the default). Without it the WAL stays and is read by the
  // next connection; nothing is lost either way.
  void setCheckpointOnClose(bool checkpoint);

  // How many write transactions were rolled back on this connection: what was
  // read inside one may never have been committed.
  std::uint64_t rollbacks() const { return rollbacks_; }
  void countRollback() { ++rollbacks_; }

  // "PRAGMA quick_check": false with a record that says the file is damaged.
  bool checkIntegrity(CVError* error);

  // The record for a failed SQLite call with `result` while doing `action`.
  CVError errorFor(std::string_view action, int result) const;
  // The record for a database that opens but must not be used, and why.
  CVError refusal(std::string_view reason) const;

 private:
  RegistryDatabase(sqlite3* handle, std::string path, Access access)
      : handle_(handle), path_(std::move(path)), access_(access) {}
  sqlite3* handle_;
  std::string path_;
  Access access_;
  std::uint64_t rollbacks_ = 0;
};

// BEGIN IMMEDIATE on creation (the write lock is taken at once, so a busy
// database is waited for here and not at the first write); ROLLBACK when it
// goes away uncommitted.
class WriteTransaction {
 public:
  explicit WriteTransaction(RegistryDatabase& database) : database_(database) {}
  ~WriteTransaction();
  WriteTransaction(const WriteTransaction&) = delete;
  WriteTransaction& operator=(const WriteTransaction&) = delete;

  bool begin(CVError* error);
  bool commit(CVError* error);

 private:
  RegistryDatabase& database_;
  bool open_ = false;
};

// A read snapshot: every query between begin and the end of the object sees
// the same committed state.
class ReadTransaction {
 public:
  explicit ReadTransaction(RegistryDatabase& database) : database_(database) {}
  ~ReadTransaction();
  ReadTransaction(const ReadTransaction&) = delete;
  ReadTransaction& operator=(const ReadTransaction&) = delete;
  bool begin(CVError* error);

 private:
  RegistryDatabase& database_;
  bool open_ = false;
};

}  // namespace mavrel_installer

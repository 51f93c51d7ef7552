#include "installer/RegistryDatabase.h"

#include <sqlite3.h>

#include <algorithm>
#include <array>
#include <cstring>
#include <fstream>
#include <utility>

#include "installer/InstallErrors.h"
#include "shared/filemanager/CVErrors.h"

namespace mavrel_installer {
namespace {

constexpr std::string_view kFunction = "RegistryDatabase";
// Long enough for a reader's checkpoint or another writer's transaction.
constexpr int kBusyTimeoutMilliseconds = 10000;

bool isDamaged(int result) {
  const int primary = result & 0xFF;
  return primary == SQLITE_CORRUPT || primary == SQLITE_NOTADB;
}

CVError makeError(const std::string& path, std::string_view action, int result,
                  std::string_view message) {
  CVDictionary userInfo;
  userInfo.set(std::string(CVPathArgumentErrorKey), CVValue(path));
  userInfo.set("SQLiteResultCode", CVValue(result));
  if (result == SQLITE_READONLY_ROLLBACK) {
    // A hot rollback journal: a read-only connection may not roll it back.
    return CreateAndLogError(
        kFunction, CVInstallerErrorDomain, kRegistryDatabaseErrorCode, CVError(), &userInfo,
        "The application registry %@ holds a write that was cut off before it committed (its "
        "rollback journal %@ is left beside it); it cannot be read until that write is rolled "
        "back, which the next installer that opens the registry for writing does",
        path, path + "-journal");
  }
  if (isDamaged(result)) {
    return CreateAndLogError(kFunction, CVInstallerErrorDomain, kRegistryDatabaseErrorCode,
                             CVError(), &userInfo,
                             "The application registry %@ is damaged or is not a database (%@ "
                             "while trying to %@); it has been left as it is",
                             path, message, action);
  }
  return CreateAndLogError(kFunction, CVInstallerErrorDomain, kRegistryDatabaseErrorCode, CVError(),
                           &userInfo,
                           "The application registry %@ could not %@: %@ (SQLite result %d)", path,
                           action, message, result);
}

// "file:<path>?immutable=1", with the characters a URI gives a meaning escaped.
std::string immutableURI(const std::string& path) {
  std::string uri = "file:";
  for (const char c : path) {
    if (c == '%' || c == '?' || c == '#') {
      static constexpr char kHex[] = "0123456789ABCDEF";
      const auto byte = static_cast<unsigned char>(c);
      uri += '%';
      uri += kHex[byte >> 4];
      uri += kHex[byte & 0xF];
    } else {
      uri += c;
    }
  }
  return uri + "?immutable=1";
}

}  // namespace

// ---- Statement ----

Statement::~Statement() {
  if (statement_ != nullptr) sqlite3_finalize(statement_);
}

Statement::Statement(Statement&& other) noexcept
    : database_(other.database_), statement_(std::exchange(other.statement_, nullptr)) {}

Statement& Statement::operator=(Statement&& other) noexcept {
  if (this != &other) {
    if (statement_ != nullptr) sqlite3_finalize(statement_);
    database_ = other.database_;
    statement_ = std::exchange(other.statement_, nullptr);
  }
  return *this;
}

Statement::Use::~Use() {
  sqlite3_reset(statement_.statement_);
  sqlite3_clear_bindings(statement_.statement_);
}

Statement::Use& Statement::Use::bind(int index, std::string_view text) {
  if (sqlite3_bind_text(statement_.statement_, index, text.data(), static_cast<int>(text.size()),
                        SQLITE_TRANSIENT) != SQLITE_OK)
    failed_ = true;
  return *this;
}

Statement::Use& Statement::Use::bind(int index, std::int64_t value) {
  if (sqlite3_bind_int64(statement_.statement_, index, value) != SQLITE_OK) failed_ = true;
  return *this;
}

Statement::Use& Statement::Use::bindNull(int index) {
  if (sqlite3_bind_null(statement_.statement_, index) != SQLITE_OK) failed_ = true;
  return *this;
}

Statement::Use& Statement::Use::bindBlob(int index, std::span<const std::uint8_t> bytes) {
  // SQLite binds a null pointer as NULL: an empty blob needs a pointer.
  static constexpr std::uint8_t kNoBytes = 0;
  const std::uint8_t* data = bytes.empty() ? &kNoBytes : bytes.data();
  if (sqlite3_bind_blob(statement_.statement_, index, data, static_cast<int>(bytes.size()),
                        SQLITE_TRANSIENT) != SQLITE_OK)
    failed_ = true;
  return *this;
}

Statement::Use& Statement::Use::bindOptional(int index, std::string_view text) {
  return text.empty() ? bindNull(index) : bind(index, text);
}

bool Statement::Use::next(CVError* error) {
  if (failed_) {
    CVSetError(error, statement_.database_->errorFor("bind a statement's values", SQLITE_RANGE));
    return false;
  }
  const int result = sqlite3_step(statement_.statement_);
  if (result == SQLITE_ROW) return true;
  if (result == SQLITE_DONE) return false;
  CVSetError(error, statement_.database_->errorFor("run a statement", result));
  failed_ = true;
  return false;
}

bool Statement::Use::run(CVError* error) {
  CVError stepError;
  while (next(&stepError)) {
  }
  if (failed_) {
    CVSetError(error, std::move(stepError));
    return false;
  }
  return true;
}

std::string Statement::Use::text(int column) const {
  const unsigned char* value = sqlite3_column_text(statement_.statement_, column);
  if (value == nullptr) return std::string();
  return std::string(reinterpret_cast<const char*>(value),
                     static_cast<std::size_t>(sqlite3_column_bytes(statement_.statement_, column)));
}

std::int64_t Statement::Use::integer(int column) const {
  return sqlite3_column_int64(statement_.statement_, column);
}

bool Statement::Use::isNull(int column) const {
  return sqlite3_column_type(statement_.statement_, column) == SQLITE_NULL;
}

CVData Statement::Use::blob(int column) const {
  const auto* value =
      static_cast<const std::uint8_t*>(sqlite3_column_blob(statement_.statement_, column));
  const int size = sqlite3_column_bytes(statement_.statement_, column);
  if (value == nullptr || size <= 0) return CVData();
  return CVData(value, value + size);
}

// ---- RegistryDatabase ----

bool holdsOnlyACutFirstWrite(const std::string& path) {
  // A rollback journal's header: its magic, the record count, the checksum
  // nonce, then the size in pages of the database before the write.
  static constexpr unsigned char kJournalMagic[] = {0xD9, 0xD5, 0x05, 0xF9, 0x20, 0xA1, 0x63, 0xD7};
  std::ifstream journal(path + "-journal", std::ios::binary);
  std::array<char, 20> header{};
  if (!journal.read(header.data(), header.size())) return false;
  if (std::memcmp(header.data(), kJournalMagic, sizeof kJournalMagic) != 0) return false;
  return std::all_of(header.begin() + 16, header.end(), [](char byte) { return byte == 0; });
}

bool holdsCutWrite(const CVError& error) {
  if (error.domain() != CVInstallerErrorDomain || error.code() != kRegistryDatabaseErrorCode)
    return false;
  const CVNumber* result = error.userInfo().findNumber("SQLiteResultCode");
  return result != nullptr && result->int64Value() == SQLITE_READONLY_ROLLBACK;
}

std::unique_ptr<RegistryDatabase> RegistryDatabase::open(const std::string& path, Access access,
                                                         CVError* error) {
  int flags = SQLITE_OPEN_NOMUTEX | SQLITE_OPEN_NOFOLLOW;
  flags |= access == Access::ReadWrite ? SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE
                                       : SQLITE_OPEN_READONLY;
  // "immutable=1" makes SQLite take no lock and create no companion file.
  const std::string name = access == Access::Immutable ? immutableURI(path) : path;
  if (access == Access::Immutable) flags |= SQLITE_OPEN_URI;
  sqlite3* handle = nullptr;
  const int result = sqlite3_open_v2(name.c_str(), &handle, flags, nullptr);
  if (result != SQLITE_OK) {
    const std::string message = handle != nullptr ? sqlite3_errmsg(handle) : sqlite3_errstr(result);
    sqlite3_close_v2(handle);
    CVSetError(error, makeError(path, "be opened", result, message));
    return nullptr;
  }
  std::unique_ptr<RegistryDatabase> database(new RegistryDatabase(handle, path, access));
  sqlite3_extended_result_codes(handle, 1);
  sqlite3_busy_timeout(handle, kBusyTimeoutMilliseconds);
  if (access != Access::ReadWrite) {
    // Reading the schema version touches the file: a damaged one shows here.
    if (!database->queryText("PRAGMA user_version", error)) return nullptr;
    return database;
  }
  const auto mode = database->queryText("PRAGMA journal_mode=WAL", error);
  if (!mode) return nullptr;
  if (*mode != "wal") {
    CVSetError(error, database->errorFor("switch to write-ahead logging (mode " + *mode + ")",
                                         SQLITE_CANTOPEN));
    return nullptr;
  }
  // A migration commits a few times per application. The WAL is copied into
  // the database (and both flushed) once it holds this many pages rather than
  // SQLite's default of 1,000: a 1,000-application migration checkpoints once
  // or twice instead of about fifteen times, each a wait for the disk. Closing
  // checkpoints whatever is left.
  if (!database->execute("PRAGMA synchronous=NORMAL; PRAGMA foreign_keys=ON; "
                         "PRAGMA wal_autocheckpoint=16384;",
                         error)) {
    return nullptr;
  }
  return database;
}

RegistryDatabase::~RegistryDatabase() {
  // Statements still alive are finalized by their owners; close_v2 waits for them.
  sqlite3_close_v2(handle_);
}

bool RegistryDatabase::execute(const char* sql, CVError* error) {
  const int result = sqlite3_exec(handle_, sql, nullptr, nullptr, nullptr);
  if (result == SQLITE_OK) return true;
  // Built (and logged) only for a caller who wants it: a rollback on the way
  // out of a failed transaction may fail harmlessly.
  if (error != nullptr) *error = errorFor("run \"" + std::string(sql) + "\"", result);
  return false;
}

std::optional<Statement> RegistryDatabase::prepare(std::string_view sql, CVError* error) {
  sqlite3_stmt* statement = nullptr;
  const int result = sqlite3_prepare_v3(handle_, sql.data(), static_cast<int>(sql.size()),
                                        SQLITE_PREPARE_PERSISTENT, &statement, nullptr);
  if (result != SQLITE_OK) {
    sqlite3_finalize(statement);
    CVSetError(error, errorFor("prepare \"" + std::string(sql) + "\"", result));
    return std::nullopt;
  }
  return Statement(*this, statement);
}

std::optional<std::string> RegistryDatabase::queryText(const char* sql, CVError* error) {
  auto statement = prepare(sql, error);
  if (!statement) return std::nullopt;
  Statement::Use use(*statement);
  CVError stepError;
  if (!use.next(&stepError)) {
    if (stepError) {
      CVSetError(error, std::move(stepError));
      return std::nullopt;
    }
    return std::string();
  }
  return use.text(0);
}

void RegistryDatabase::setCheckpointOnClose(bool checkpoint) {
  sqlite3_db_config(handle_, SQLITE_DBCONFIG_NO_CKPT_ON_CLOSE, checkpoint ? 0 : 1, nullptr);
}

bool RegistryDatabase::checkIntegrity(CVError* error) {
  const auto verdict = queryText("PRAGMA quick_check", error);
  if (!verdict) return false;
  if (*verdict != "ok") {
    CVSetError(error, makeError(path_, "pass its integrity check", SQLITE_CORRUPT, *verdict));
    return false;
  }
  return true;
}

CVError RegistryDatabase::errorFor(std::string_view action, int result) const {
  return makeError(path_, action, result, sqlite3_errmsg(handle_));
}

CVError RegistryDatabase::refusal(std::string_view reason) const {
  CVDictionary userInfo;
  userInfo.set(std::string(CVPathArgumentErrorKey), CVValue(path_));
  return CreateAndLogError(kFunction, CVInstallerErrorDomain, kRegistryDatabaseErrorCode, CVError(),
                           &userInfo,
                           "The application registry %@ cannot be used: %@; it has been left as "
                           "it is",
                           path_, reason);
}

// ---- Transactions ----

WriteTransaction::~WriteTransaction() {
  if (!open_) return;
  database_.execute("ROLLBACK", nullptr);
  database_.countRollback();
}

bool WriteTransaction::begin(CVError* error) {
  open_ = database_.execute("BEGIN IMMEDIATE", error);
  return open_;
}

bool WriteTransaction::commit(CVError* error) {
  if (!open_) return false;
  if (!database_.execute("COMMIT", error)) return false;  // the destructor rolls back
  open_ = false;
  return true;
}

ReadTransaction::~ReadTransaction() {
  if (open_) database_.execute("COMMIT", nullptr);
}

bool ReadTransaction::begin(CVError* error) {
  // A deferred transaction takes its snapshot at the first read.
  open_ = database_.execute("BEGIN DEFERRED", error);
  return open_;
}

}  // namespace mavrel_installer

#include "platform/linux/photos/photo_catalogue.h"

#include <algorithm>
#include <array>
#include <limits>

#include "base/utf8.h"
#include "platform/linux/photos/read_only_vfs.h"

namespace vesko {
namespace {

constexpr const char* fileName = "Photos.sqlite";
constexpr const char* attributesTable = "ZADDITIONALASSETATTRIBUTES";

constexpr int busyMilliseconds = 500;
constexpr int maxTextBytes = 1 << 20;
/// A few seconds: many times what a large library takes, and an end for one that is made to last.
constexpr int stepsPerCheck = 100'000;
constexpr std::int64_t maxChecks = 5'000;

/// Core Data's numbers.
constexpr int imageKind = 0;
constexpr int videoKind = 1;

std::unexpected<PhotoLibraryError> problem(std::string message) {
  return std::unexpected(PhotoLibraryError{std::move(message)});
}

/// Empty for what is no text, or no UTF-8.
std::string text(sqlite3_stmt* row, int column) {
  const auto* bytes = reinterpret_cast<const char*>(sqlite3_column_text(row, column));
  if (!bytes) return {};
  const std::string_view found(bytes, static_cast<std::size_t>(sqlite3_column_bytes(row, column)));
  return isValidUtf8(found) ? std::string(found) : std::string();
}

int side(sqlite3_stmt* row, int column) {
  return static_cast<int>(std::clamp<sqlite3_int64>(sqlite3_column_int64(row, column), 0,
                                                    std::numeric_limits<int>::max()));
}

}  // namespace

PhotoLibraryError PhotoCatalogue::failure(int result) const {
  // Some results carry their reason in the upper bits.
  if (sqlite3_extended_errcode(connection_.get()) == SQLITE_READONLY_ROLLBACK ||
      result == SQLITE_READONLY_ROLLBACK)
    return {
        "The Photos library was left in the middle of a change; open it in its own "
        "application first"};
  switch (result & 0xFF) {
    case SQLITE_BUSY:
    case SQLITE_LOCKED:
      return {"The Photos library is in use by another application"};
    case SQLITE_CANTOPEN:
    case SQLITE_PERM:
    case SQLITE_AUTH:
      return {"The Photos library's catalogue cannot be opened"};
    case SQLITE_INTERRUPT:
      return {"The Photos library's catalogue took too long to read"};
    case SQLITE_NOMEM:
      return {"There is not enough memory to read the Photos library"};
    default:
      return {"The Photos library's catalogue is damaged"};
  }
}

std::expected<PhotoCatalogue, PhotoLibraryError> PhotoCatalogue::open(
    const PackageFolder& package) {
  auto folder = package.folder("database");
  if (!folder) return problem("The Photos library has no catalogue");
  if (const auto file = folder->file(fileName); !file) {
    if (file.error() != std::errc::no_such_file_or_directory)
      return problem("The Photos library's catalogue cannot be opened");
    return problem(folder->file("photos.db")
                       ? "The Photos library has an older format that is not supported"
                       : "The Photos library has no catalogue");
  }
  PhotoCatalogue catalogue(std::move(*folder));
  if (auto connected = catalogue.connect(); !connected) return std::unexpected(connected.error());
  if (auto found = catalogue.findTables(); !found) return std::unexpected(found.error());
  return catalogue;
}

std::expected<void, PhotoLibraryError> PhotoCatalogue::connect() {
  sqlite3* opened = nullptr;
  const std::string path = folder_.stablePath() + "/" + fileName;
  const int result = sqlite3_open_v2(path.c_str(), &opened,
                                     SQLITE_OPEN_READONLY | SQLITE_OPEN_NOMUTEX, readOnlyVfs());
  connection_.reset(opened);
  if (result != SQLITE_OK) return std::unexpected(failure(result));
  // The file is somebody else's: what its schema calls is not run, and no single value is large.
  sqlite3_db_config(opened, SQLITE_DBCONFIG_DEFENSIVE, 1, nullptr);
  sqlite3_db_config(opened, SQLITE_DBCONFIG_TRUSTED_SCHEMA, 0, nullptr);
  sqlite3_db_config(opened, SQLITE_DBCONFIG_ENABLE_VIEW, 0, nullptr);
  sqlite3_limit(opened, SQLITE_LIMIT_LENGTH, maxTextBytes);
  sqlite3_busy_timeout(opened, busyMilliseconds);
  const int prepared = sqlite3_exec(
      opened, "PRAGMA locking_mode=EXCLUSIVE; PRAGMA temp_store=MEMORY; PRAGMA cell_size_check=ON",
      nullptr, nullptr, nullptr);
  return prepared == SQLITE_OK ? Result<void>() : std::unexpected(failure(prepared));
}

std::expected<PhotoCatalogue::Statement, PhotoLibraryError> PhotoCatalogue::prepare(
    const std::string& query) {
  // Set here, since the object may have been moved since.
  steps_ = 0;
  sqlite3_progress_handler(
      connection_.get(), stepsPerCheck,
      [](void* steps) { return ++*static_cast<std::int64_t*>(steps) > maxChecks ? 1 : 0; },
      &steps_);
  sqlite3_stmt* statement = nullptr;
  const int result = sqlite3_prepare_v2(connection_.get(), query.c_str(),
                                        static_cast<int>(query.size()), &statement, nullptr);
  if (result == SQLITE_OK) return Statement(statement);
  if (result == SQLITE_ERROR)
    return problem("The Photos library's catalogue has an unknown schema");
  return std::unexpected(failure(result));
}

std::expected<std::set<std::string>, PhotoLibraryError> PhotoCatalogue::columnsOf(
    const std::string& table) {
  auto statement = prepare(
      "SELECT c.name FROM sqlite_schema AS t, pragma_table_info(t.name) AS c "
      "WHERE t.type = 'table' AND t.name = ?1");
  if (!statement) return std::unexpected(statement.error());
  sqlite3_bind_text(statement->get(), 1, table.c_str(), -1, SQLITE_TRANSIENT);
  std::set<std::string> columns;
  int result = SQLITE_ROW;
  while ((result = sqlite3_step(statement->get())) == SQLITE_ROW)
    columns.insert(text(statement->get(), 0));
  if (result != SQLITE_DONE) return std::unexpected(failure(result));
  return columns;
}

std::expected<void, PhotoLibraryError> PhotoCatalogue::findTables() {
  for (const char* table : {"ZASSET", "ZGENERICASSET"}) {
    auto columns = columnsOf(table);
    if (!columns) return std::unexpected(columns.error());
    if (columns->empty()) continue;
    table_ = table;
    columns_ = std::move(*columns);
    break;
  }
  static constexpr std::array needed = {"Z_PK", "ZUUID", "ZDIRECTORY", "ZFILENAME", "ZKIND"};
  if (!std::ranges::all_of(needed, [&](const char* column) { return columns_.contains(column); }))
    return problem("The Photos library's catalogue has an unknown schema");
  auto attributes = columnsOf(attributesTable);
  if (!attributes) return std::unexpected(attributes.error());
  hasOriginalNames_ = attributes->contains("ZASSET") && attributes->contains("ZORIGINALFILENAME");
  return {};
}

std::string PhotoCatalogue::visible() const {
  std::string condition = "a.ZUUID IS NOT NULL";
  for (const char* flag : {"ZTRASHEDSTATE", "ZHIDDEN"}) {
    if (columns_.contains(flag)) condition += std::string(" AND ifnull(a.") + flag + ", 0) = 0";
  }
  return condition;
}

std::expected<std::optional<CatalogueAsset>, PhotoLibraryError> PhotoCatalogue::asset(
    const std::string& uuid) {
  const auto column = [this](const char* name) {
    return columns_.contains(name) ? std::string("a.") + name : std::string("NULL");
  };
  auto statement =
      prepare("SELECT a.ZUUID, a.ZDIRECTORY, a.ZFILENAME, a.ZKIND, " + column("ZWIDTH") + ", " +
              column("ZHEIGHT") + ", " + column("ZUNIFORMTYPEIDENTIFIER") + ", " +
              (hasOriginalNames_ ? std::string("(SELECT b.ZORIGINALFILENAME FROM ") +
                                       attributesTable + " AS b WHERE b.ZASSET = a.Z_PK LIMIT 1)"
                                 : std::string("NULL")) +
              " FROM " + table_ + " AS a WHERE a.ZUUID = ?1 AND " + visible() +
              " ORDER BY a.rowid LIMIT 1");
  if (!statement) return std::unexpected(statement.error());
  sqlite3_stmt* row = statement->get();
  sqlite3_bind_text(row, 1, uuid.data(), static_cast<int>(uuid.size()), SQLITE_TRANSIENT);
  const int result = sqlite3_step(row);
  if (result == SQLITE_DONE) return std::nullopt;
  if (result != SQLITE_ROW) return std::unexpected(failure(result));
  CatalogueAsset asset{.uuid = text(row, 0),
                       .directory = text(row, 1),
                       .filename = text(row, 2),
                       .originalFilename = text(row, 7),
                       .typeIdentifier = text(row, 6),
                       .size = {side(row, 4), side(row, 5)}};
  if (sqlite3_column_type(row, 3) == SQLITE_INTEGER) {
    const int kind = sqlite3_column_int(row, 3);
    if (kind == imageKind) asset.media = PhotoMedia::image;
    if (kind == videoKind) asset.media = PhotoMedia::video;
  }
  return asset;
}

std::expected<void, PhotoLibraryError> PhotoCatalogue::forEachUuid(
    const std::function<void(std::string_view)>& visit) {
  auto statement =
      prepare("SELECT a.ZUUID FROM " + table_ + " AS a WHERE " + visible() + " ORDER BY a.rowid");
  if (!statement) return std::unexpected(statement.error());
  int result = SQLITE_ROW;
  while ((result = sqlite3_step(statement->get())) == SQLITE_ROW) {
    if (const std::string uuid = text(statement->get(), 0); !uuid.empty()) visit(uuid);
  }
  return result == SQLITE_DONE ? Result<void>() : std::unexpected(failure(result));
}

}  // namespace vesko

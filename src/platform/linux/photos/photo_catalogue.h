// The catalogue of a Photos library, `database/Photos.sqlite` of its package: a Core Data store
// whose table of assets is ZASSET, or ZGENERICASSET in older libraries.
//
// Opened anew for every question and never written to. One thread at a time.
#pragma once

#include <sqlite3.h>

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <string_view>

#include "platform/linux/photos/package_files.h"
#include "platform/photo_library.h"

namespace vesko {

struct CatalogueAsset {
  std::string uuid;
  std::string directory;  ///< below originals/; empty for none
  std::string filename;
  std::string originalFilename;  ///< empty where it is not known, as is the next
  std::string typeIdentifier;
  PhotoMedia media = PhotoMedia::unknown;
  PixelSize size;
};

class PhotoCatalogue {
 public:
  template <class T>
  using Result = PhotoLibrary::Result<T>;

  static Result<PhotoCatalogue> open(const PackageFolder& package);

  Result<std::optional<CatalogueAsset>> asset(const std::string& uuid);
  Result<void> forEachUuid(const std::function<void(std::string_view uuid)>& visit);

 private:
  struct CloseConnection {
    void operator()(sqlite3* connection) const { sqlite3_close(connection); }
  };
  struct FinalizeStatement {
    void operator()(sqlite3_stmt* statement) const { sqlite3_finalize(statement); }
  };
  using Statement = std::unique_ptr<sqlite3_stmt, FinalizeStatement>;

  explicit PhotoCatalogue(PackageFolder folder) : folder_(std::move(folder)) {}

  Result<void> connect();
  Result<void> findTables();
  Result<std::set<std::string>> columnsOf(const std::string& table);
  Result<Statement> prepare(const std::string& query);
  PhotoLibraryError failure(int result) const;
  std::string visible() const;

  PackageFolder folder_;
  std::unique_ptr<sqlite3, CloseConnection> connection_;
  std::int64_t steps_ = 0;
  std::string table_;  ///< of the assets
  std::set<std::string> columns_;
  bool hasOriginalNames_ = false;
};

}  // namespace vesko

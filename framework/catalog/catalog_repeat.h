#pragma once

#include "catalog/catalog_back_end.h"

#include <string>

namespace kestrel
{
/// For commits whose answer got lost: whether the catalog already has this very record. `found` is true when
/// the resource has one set of the record's uuid that is the same in every field and in its first storage. A
/// field that the catalog does not keep cannot differ.
/// Errors: the status and `error` of the catalog's answer, `found` untouched. Throws when an answer has no
///         rows, or the record's uuid is none.
[[nodiscard]] Catalog_Status find_same_record(Catalog_Back_End& catalog, const Backup_Record& record,
                                              bool& found, std::string& error);

/// One attempt of a commit. `repeated`: an earlier attempt of the same commit had no definite end, so that
/// the catalog may have the record from it; the same record is then a success and another one of that uuid
/// still an error.
[[nodiscard]] Catalog_Status commit_again(Catalog_Back_End& catalog, const Backup_Record& record,
                                          bool must_be_new, bool repeated, std::string& warning,
                                          std::string& error);
} // namespace kestrel

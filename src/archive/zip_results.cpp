#include "archive/zip_results.hpp"

#include "archive/minizip/unzip.hpp"
#include "archive/minizip/zip.hpp"
#include "support/exception.hpp"

#include <string>

namespace QOB::MiniZip {

void CheckZipResult(int result, std::error_code cause) {
    switch (result) {
    case ZIP_OK:
        return;
    case ZIP_ERRNO:
        throw Exception(INTERNAL_INCONSISTENCY, "minizip returned ZIP_ERRNO", cause, {});
    case ZIP_PARAMERROR:
        throw Exception(INVALID_PARAMETER, "minizip returned ZIP_PARAMERROR");
    case ZIP_BADZIPFILE:
        throw Exception(CANNOT_READ_FILE_PCK, "minizip returned ZIP_BADZIPFILE");
    case ZIP_INTERNALERROR:
        throw Exception(INTERNAL_INCONSISTENCY, "minizip returned ZIP_INTERNALERROR");
    case ZIP_FILENOTINPACKAGE:
        throw Exception(FILE_NOT_IN_PACKAGE, "minizip returned ZIP_FILENOTINPACKAGE");
    default:
        throw Exception(INTERNAL_INCONSISTENCY, "minizip returned an unknown zip error code");
    }
}

void CheckUnzipResult(int result, std::error_code cause) {
    switch (result) {
    case UNZ_OK:
        return;
    case UNZ_ERRNO:
        throw Exception(INTERNAL_INCONSISTENCY, "minizip returned UNZ_ERRNO", cause, {});
    case UNZ_END_OF_LIST_OF_FILE:
        throw Exception(FILE_NOT_IN_PACKAGE, "minizip returned UNZ_END_OF_LIST_OF_FILE");
    case UNZ_PARAMERROR:
        throw Exception(INVALID_PARAMETER, "minizip returned UNZ_PARAMERROR");
    case UNZ_BADZIPFILE:
        // The reader's reason, when it gave one, says what the code cannot.
        if (const char* reason = unzRefusal(); reason[0] != '\0') {
            throw Exception(CANNOT_READ_FILE_PCK,
                            std::string("minizip returned UNZ_BADZIPFILE: ") + reason);
        }
        throw Exception(CANNOT_READ_FILE_PCK, "minizip returned UNZ_BADZIPFILE");
    case UNZ_INTERNALERROR:
        throw Exception(INTERNAL_INCONSISTENCY, "minizip returned UNZ_INTERNALERROR");
    case UNZ_CRCERROR:
        throw Exception(CANNOT_READ_FILE_PCK, "minizip returned UNZ_CRCERROR");
    default:
        throw Exception(INTERNAL_INCONSISTENCY, "minizip returned an unknown unzip error code");
    }
}

} // namespace QOB::MiniZip

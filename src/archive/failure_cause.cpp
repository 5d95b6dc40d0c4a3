#include "archive/failure_cause.hpp"

#include "support/utf8_path.hpp"

namespace QOB {
namespace {

// Why no file could be made at path: the folder's state, else the system's verdict on
// creating files there.
std::error_code CreateRefused(const std::filesystem::path& path) {
    const std::filesystem::path folder = path.parent_path().empty() ? "." : path.parent_path();
    std::error_code missing;
    const std::filesystem::file_status status = std::filesystem::status(folder, missing);
    if (missing) {
        return missing;
    }
    if (!std::filesystem::is_directory(status)) {
        return std::make_error_code(std::errc::not_a_directory);
    }
    return Platform::CreateRefusedIn(folder);
}

} // namespace

void ExplainOpenFailure(Exception& failure, const std::filesystem::path& path, bool should_exist) {
    std::error_code cause;
    std::error_code unknown;
    if (failure.code() == PACKAGE_NOT_FOUND) {
        static_cast<void>(std::filesystem::symlink_status(path, cause));
    } else if (std::filesystem::is_directory(std::filesystem::symlink_status(path, unknown))) {
        cause = std::make_error_code(std::errc::is_a_directory); // a folder holds no zip
    } else if (failure.code() == INTERNAL_INCONSISTENCY) {
        cause = Platform::LastSystemError();
        // A create that failed leaves the error of a fallback open of the missing file: the
        // folder tells why the file could not be made.
        if (!should_exist) {
            if (const std::error_code refused = CreateRefused(path)) {
                cause = refused;
            }
        }
    }
    failure.AddContext(cause.value() != 0 ? cause : std::error_code(), PathToUtf8(path));
}

void CopyFailed(const char* text, std::error_code cause, const std::filesystem::path& file) {
    throw Exception(INTERNAL_INCONSISTENCY, text, cause, PathToUtf8(file));
}

} // namespace QOB

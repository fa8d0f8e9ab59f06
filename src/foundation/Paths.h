// The user's Caches and Application Support folders, and the bundle identifier.
#pragma once

#include <QString>

namespace brindle {

enum class SearchDirectory { Caches, ApplicationSupport };

// "com.tarnwell.brindle".
QString bundleIdentifier();
// The user's base folder for `directory` (without the bundle identifier), or
// an empty string if the platform has none. Caches is the XDG cache home,
// Application Support the XDG data home.
QString searchPathForDirectory(SearchDirectory directory);
// The platform's temporary folder.
QString temporaryDirectory();
// Creates `path` with intermediate folders; errors are ignored (answers whether it exists).
bool createDirectoryWithIntermediates(const QString& path);

}  // namespace brindle

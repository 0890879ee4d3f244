// Copies a plain file into a gzip file and back.
//
// Both directions work in pieces of 4096 bytes and touch nothing but the destination: a source is
// never removed, and a destination that could be written only in part is left as it is. A read
// error ends the copy like the end of the file does, with result 0.
#ifndef UTILITY_QV_UTILITIES_ZLIB_H
#define UTILITY_QV_UTILITIES_ZLIB_H

#include <string>

/// Compresses a file into a single gzip stream, at zlib's default level.
/// @param inFileName   plain source file
/// @param outFileName  gzip file, created or overwritten; untouched when the source cannot be
/// opened
/// @return 0, or -1 when a file cannot be opened or the destination takes no more bytes.
int qv_zlibCompress(const char* inFileName, const char* outFileName);
int qv_zlibCompress(const std::string& inFileName, const std::string& outFileName);

/// Decompresses a gzip file; a file that is not gzip is copied as it is.
/// @param inFileName   gzip source file
/// @param outFileName  plain file, created or overwritten; untouched when the source cannot be
/// opened
/// @return 0, also when the source ends early or is damaged; -1 when a file cannot be opened or
/// the destination takes no more bytes.
int qv_zlibDecompress(const char* inFileName, const char* outFileName);

#endif

// File-system path helpers and small text scanners.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

// Puts a backslash before blanks and ! " $ & ' ( ) , ; = [ ] ^ ` { }, copying multi-byte UTF-8
// sequences whole. Only for showing a path in the documented text of a command line: nothing is
// ever run through a shell. 0, or -1 when `in` (or the escaped result) does not fit `size`.
int convert_utf8_linux_filepath(const char* in, char* out, size_t size);
int convert_utf8_linux_filepath_2(const char* in, char* out, size_t size);

// Absolute path with symbolic links resolved; for a regular file only its directory is resolved
// and its own name kept (a link to a file keeps the link's name). 0, or -1 when it cannot be
// resolved.
int get_real_path(const char* path, std::string& out);
// The resolved directory part of `path` ("/" for an entry of the root directory). 0 or -1.
int get_base_path(const char* path, std::string& out);
bool is_file_exist(const char* path);

// Returns the line at `cursor` without its "\n" or "\r\n" and moves `cursor` past it.
std::string_view Go_Next_Line(std::string_view& cursor);
// Skips white space (line breaks included), returns the next run of non-blank characters and moves
// `cursor` past it; empty when the text is used up.
std::string_view Get_Next_Word(std::string_view& cursor);

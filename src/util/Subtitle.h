// Finder for an external subtitle file next to a video.
#pragma once

#include <string>

// Looks in the video's directory for "<name without extension>*.srt" or "*.ass" (extension in any
// case), as enabled by the media server's "default_subtitle" setting (0: off). Among the matches:
//   1. one whose name, past the video's name, contains the configured language
//      ("default_subtitle_lang", any case) wins;
//   2. then one where the video's name is followed by '.' ("movie.srt", "movie.en.srt") rather
//      than by something else ("movie2.srt" belongs to another video);
//   3. ties go to the smallest name, so the choice does not depend on directory order.
// True with the subtitle's full path in `subtitlePath` when one is found.
bool is_default_subtitle_found(const std::string& mediaPath, std::string& subtitlePath);

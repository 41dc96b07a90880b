// The viewer's page (HTML, CSS, JavaScript), built into the binary from page/ so that the tool
// needs no files beside it and the page works offline.
#ifndef TALVORO_TOOL_VIEW_PAGE_FILES_H
#define TALVORO_TOOL_VIEW_PAGE_FILES_H

#include <cstddef>

namespace talvoro_tool {

struct PageFile {
    const char* name;  // "index.html"
    const unsigned char* data;
    std::size_t size;
};

// Null for a name that is not part of the page.
const PageFile* findPageFile(const char* name);

}  // namespace talvoro_tool

#endif

// What the examples share that is not the library's business: a folder for the files they write,
// and a text file read back to be shown. Each example adds this folder to its include path.
#pragma once

#include <tavrin/core/file.h>
#include <tavrin/core/ustring.h>

#include <string>

namespace example {

// "tavrin_example_logs" in the user's temporary folder, created if it is not there yet.
inline tavrin::ustring ExampleFolder()
{
    tavrin::ustring folder;
    tavrin::CFile::GetTempPathW(folder);
    folder.trim_right(L'\\');
    folder += L"\\tavrin_example_logs";
    tavrin::CFile::CreateFolder(folder);
    return folder;
}

// A text file's UTF-8 content as UTF-16 (a data log file, say, opened while others may write it).
inline tavrin::ustring ReadUtf8File(const tavrin::ustring& path)
{
    tavrin::CFile file(path, GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr, OPEN_EXISTING,
                       FILE_ATTRIBUTE_NORMAL, nullptr);
    std::string bytes(static_cast<std::size_t>(file.GetLength()), '\0');
    unsigned int read = 0;
    if (!bytes.empty())
        file.Read(&bytes[0], static_cast<unsigned int>(bytes.size()), read);
    bytes.resize(read);
    return tavrin::ustring(bytes, CP_UTF8, 0);
}

} // namespace example

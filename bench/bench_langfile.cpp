// Loading a language file: time against file size (it must grow linearly) and against a
// hand-written loader that reads the whole file and fills a std::map in one pass.
//
// Run it under Wine from the build folder: wine bin/tavrin_bench_langfile.exe
#include <tavrin/l10n/translator.h>

#include "bench_support.h"

#include <map>
#include <string>
#include <vector>

using namespace tavrin;

namespace {

std::wstring TempPath(unsigned int megabytes)
{
    wchar_t folder[MAX_PATH] = {};
    ::GetTempPathW(MAX_PATH, folder);
    return std::wstring(folder) + L"tavrin_bench_" + std::to_wstring(::GetCurrentProcessId()) + L"_" +
           std::to_wstring(megabytes) + L"mb.lng";
}

// A language file of about the given size: pairs of bracketed lines, some with escapes.
void WriteLanguageFile(const std::wstring& path, unsigned int megabytes)
{
    std::wstring text(1, L'\xFEFF');
    for (unsigned int i = 0; text.size() * 2 < megabytes * 1048576u; ++i)
    {
        const std::wstring n = std::to_wstring(i);
        text += L"[Source text number " + n + L" of the dialog\\r\\nsecond line]\r\n";
        text += L"[\x00DC" L"bersetzter Text Nummer " + n + L" des Dialogs\\r\\nzweite Zeile]\r\n";
    }
    HANDLE file = ::CreateFileW(path.c_str(), GENERIC_WRITE, 0, nullptr, CREATE_ALWAYS, 0, nullptr);
    DWORD written = 0;
    ::WriteFile(file, text.data(), static_cast<DWORD>(text.size() * 2), &written, nullptr);
    ::CloseHandle(file);
}

// The same loading by hand: whole file, one pass, lines unescaped into a map.
std::size_t LoadByHand(const std::wstring& path)
{
    HANDLE file = ::CreateFileW(path.c_str(), GENERIC_READ, FILE_SHARE_READ, nullptr, OPEN_EXISTING, 0, nullptr);
    LARGE_INTEGER size;
    ::GetFileSizeEx(file, &size);
    std::wstring text(static_cast<std::size_t>(size.QuadPart) / 2, L'\0');
    DWORD read = 0;
    ::ReadFile(file, &text[0], static_cast<DWORD>(size.QuadPart), &read, nullptr);
    ::CloseHandle(file);
    std::vector<std::wstring> lines;
    std::size_t pos = 1; // after the mark
    while (pos < text.size())
    {
        std::size_t stop = text.find_first_of(L"\r\n", pos);
        if (stop == std::wstring::npos)
            stop = text.size();
        if (stop > pos)
        {
            if (stop - pos < 2 || text[pos] != L'[' || text[stop - 1] != L']')
                return 0;
            std::wstring line;
            line.reserve(stop - pos);
            for (std::size_t i = pos + 1; i + 1 < stop; ++i)
            {
                if (text[i] == L'\\' && i + 2 < stop && (text[i + 1] == L'r' || text[i + 1] == L'n'))
                    line += text[++i] == L'r' ? L'\r' : L'\n';
                else
                    line += text[i];
            }
            lines.push_back(std::move(line));
        }
        pos = stop + 1;
    }
    std::map<std::wstring, std::wstring> table;
    for (std::size_t i = 0; i + 1 < lines.size(); i += 2)
        table[std::move(lines[i])] = std::move(lines[i + 1]);
    return table.size();
}

// Reads the table's size without copying the table.
class CLanguageFileProbe : public CLanguageFile
{
public:
    std::size_t Size() const { return m_Table.size(); }
};

std::size_t LoadWithLibrary(const std::wstring& path)
{
    CLanguageFileProbe file;
    file.LoadLanguageFile(path.c_str());
    return file.Size();
}

} // namespace

int main()
{
    std::printf("Language file loading (times per load, median of alternating rounds)\n");
    bench::PrintHeader("CLanguageFile::LoadLanguageFile against a hand-written one-pass loader");
    unsigned int missed = 0;
    double perMegabyte1 = 0, perMegabyte8 = 0;
    for (unsigned int megabytes : {1u, 2u, 4u, 8u})
    {
        const std::wstring path = TempPath(megabytes);
        WriteLanguageFile(path, megabytes);
        const bench::Ratio r = bench::Compare([&] { bench::g_sink = bench::g_sink + LoadWithLibrary(path); },
                                              [&] { bench::g_sink = bench::g_sink + LoadByHand(path); }, 7, 0.001);
        ::DeleteFileW(path.c_str());
        const std::string label = std::to_string(megabytes) + " MB";
        bench::Report(label.c_str(), r, 0);
        if (megabytes == 1)
            perMegabyte1 = r.libraryNs;
        if (megabytes == 8)
            perMegabyte8 = r.libraryNs / 8;
    }
    const double growth = perMegabyte8 / perMegabyte1;
    const bool linear = growth <= 1.5;
    missed += !linear;
    std::printf("\n  time per MB at 8 MB over time per MB at 1 MB: %.2f (linear: at most 1.5) %s\n", growth,
                linear ? "met" : "MISSED");
    return bench::Finish(missed);
}

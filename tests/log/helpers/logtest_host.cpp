// A host for the log tests that does not link Tavrin.dll: it loads the library and a plug-in
// that uses it at run time, logs through the plug-in and unloads them, timing each FreeLibrary.
// Writes what it observed to "report.txt" in its folder as key=value lines.
//
//   tavrin_logtest_host unload <folder> <records> <shutdown>
//       the plug-in logs without formatter; it calls CLogFileServer::Shutdown before both
//       modules are freed with <shutdown> 1, in its DllMain when it is freed with 2, not at all
//       with 0.
//   tavrin_logtest_host formatter <folder> <records> <formatterMs>
//       the plug-in logs through its own slow formatter and is freed at once, while the records
//       are still queued; the library stays loaded.
#include <windows.h>

#include <cstdio>
#include <cstdlib>
#include <string>

namespace {

typedef int(__cdecl* LPSTART)(const wchar_t*, unsigned int, int, unsigned int);
typedef void(__cdecl* LPLOG)(unsigned int, unsigned int);
typedef void(__cdecl* LPSHUTDOWN)();

const unsigned int kChannel = 7;
std::wstring g_strFolder;
std::string g_strReport;

void Note(const char* key, unsigned long long value)
{
    g_strReport += std::string(key) + "=" + std::to_string(value) + "\r\n";
}

void WriteReport()
{
    HANDLE file = ::CreateFileW((g_strFolder + L"\\report.txt").c_str(), GENERIC_WRITE, FILE_SHARE_READ, nullptr,
                                CREATE_ALWAYS, FILE_ATTRIBUTE_NORMAL, nullptr);
    if (file == INVALID_HANDLE_VALUE)
        return;
    DWORD written = 0;
    ::WriteFile(file, g_strReport.data(), static_cast<DWORD>(g_strReport.size()), &written, nullptr);
    ::CloseHandle(file);
}

template <class T>
T Export(HMODULE module, const char* name)
{
    return reinterpret_cast<T>(reinterpret_cast<void (*)()>(::GetProcAddress(module, name)));
}

// Milliseconds that FreeLibrary took.
unsigned long long TimedFree(HMODULE module)
{
    const ULONGLONG start = ::GetTickCount64();
    ::FreeLibrary(module);
    return ::GetTickCount64() - start;
}

// Occurrences of `what` in the log files of the folder.
unsigned int CountInLogs(const char* what)
{
    unsigned int count = 0;
    WIN32_FIND_DATAW data;
    HANDLE find = ::FindFirstFileW((g_strFolder + L"\\*.log").c_str(), &data);
    if (find == INVALID_HANDLE_VALUE)
        return 0;
    do
    {
        HANDLE file = ::CreateFileW((g_strFolder + L"\\" + data.cFileName).c_str(), GENERIC_READ,
                                    FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr, OPEN_EXISTING, 0, nullptr);
        if (file == INVALID_HANDLE_VALUE)
            continue;
        std::string text;
        char chunk[65536];
        DWORD got = 0;
        while (::ReadFile(file, chunk, sizeof(chunk), &got, nullptr) && got != 0)
            text.append(chunk, got);
        ::CloseHandle(file);
        for (std::size_t at = text.find(what); at != std::string::npos; at = text.find(what, at + 1))
            ++count;
    } while (::FindNextFileW(find, &data));
    ::FindClose(find);
    return count;
}

// Waits up to `limitMs` for `records` data records in the log files.
bool WaitForRecords(unsigned int records, DWORD limitMs)
{
    const ULONGLONG end = ::GetTickCount64() + limitMs;
    while (CountInLogs("SYNC WRITE request completed") < records)
    {
        if (::GetTickCount64() > end)
            return false;
        ::Sleep(20);
    }
    return true;
}

} // namespace

int wmain(int argc, wchar_t** argv)
{
    if (argc < 5)
        return 2;
    const std::wstring scenario = argv[1];
    g_strFolder = argv[2];
    const unsigned int records = static_cast<unsigned int>(std::wcstoul(argv[3], nullptr, 10));
    const unsigned int option = static_cast<unsigned int>(std::wcstoul(argv[4], nullptr, 10));

    HMODULE library = ::LoadLibraryW(L"Tavrin.dll");
    HMODULE plugin = ::LoadLibraryW(L"tavrin_logtest_plugin.dll");
    if (library == nullptr || plugin == nullptr)
        return 3;
    const LPSTART start = Export<LPSTART>(plugin, "LogPluginStart");
    const LPLOG log = Export<LPLOG>(plugin, "LogPluginLog");
    const LPSHUTDOWN shutdown = Export<LPSHUTDOWN>(plugin, "LogPluginShutdown");
    const LPSHUTDOWN shutdownAtDetach = Export<LPSHUTDOWN>(plugin, "LogPluginShutdownAtDetach");
    if (start == nullptr || log == nullptr || shutdown == nullptr || shutdownAtDetach == nullptr)
        return 4;

    if (scenario == L"unload")
    {
        if (!start(g_strFolder.c_str(), kChannel, 0, 0))
            return 5;
        log(kChannel, records);
        if (option == 1)
            shutdown();
        else if (option == 2)
            shutdownAtDetach();
        Note("plugin_free_ms", TimedFree(plugin));
        Note("library_free_ms", TimedFree(library));
        // A worker lets go of the library as its thread ends, a moment after Shutdown returned.
        const ULONGLONG end = ::GetTickCount64() + 2000;
        while (::GetModuleHandleW(L"Tavrin.dll") != nullptr && ::GetTickCount64() < end)
            ::Sleep(10);
        Note("library_loaded", ::GetModuleHandleW(L"Tavrin.dll") != nullptr);
        Note("complete_before_exit", WaitForRecords(records, 10000));
    }
    else if (scenario == L"formatter")
    {
        if (!start(g_strFolder.c_str(), kChannel, 1, option))
            return 5;
        log(kChannel, records);
        Note("plugin_free_ms", TimedFree(plugin));
        Note("plugin_loaded", ::GetModuleHandleW(L"tavrin_logtest_plugin.dll") != nullptr);
        Note("complete_before_exit", WaitForRecords(records, 20000));
        // The library's reference goes last; the log file is written and closed at exit.
        Note("library_free_ms", TimedFree(library));
    }
    else
        return 2;
    WriteReport();
    return 0;
}

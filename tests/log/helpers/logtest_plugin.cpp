// A plug-in for the log tests: it uses Tavrin.dll and logs through a formatter of its own, so
// that a host can unload it (or the library) while its log file lives on.
#include <tavrin/log/logfile.h>

using namespace tavrin;

namespace {

unsigned int g_nFormatterMs = 0;
bool g_bShutdownAtDetach = false;

ustring __stdcall PluginFormatter(const std::vector<unsigned char>& data)
{
    ::Sleep(g_nFormatterMs);
    unsigned int index = 0;
    if (data.size() >= 4)
        index = data[0] | data[1] << 8 | data[2] << 16 | static_cast<unsigned int>(data[3]) << 24;
    return ustring::sprintf_stc(L"plug-in formatted record %u\r\n", index);
}

} // namespace

// Points the server at `folder` and creates the channel's log file, with the plug-in's formatter
// (taking `formatterMs` per record) when `withFormatter`. 1 on success.
extern "C" __declspec(dllexport) int LogPluginStart(const wchar_t* folder, unsigned int channel, int withFormatter,
                                                    unsigned int formatterMs)
{
    g_nFormatterMs = formatterMs;
    CLogFileServer::Ref().SetFolder(folder, false);
    CLogFileServer::Ref().SetDetail(eLogFileDetailVerbose);
    return CLogFileServer::Ref().CreateLogFile(channel, L"plugin", withFormatter ? &PluginFormatter : nullptr) ? 1 : 0;
}

// Logs `count` 16-byte data records whose first four bytes are their index.
extern "C" __declspec(dllexport) void LogPluginLog(unsigned int channel, unsigned int count)
{
    for (unsigned int i = 0; i < count; ++i)
    {
        unsigned char bytes[16] = {static_cast<unsigned char>(i), static_cast<unsigned char>(i >> 8),
                                   static_cast<unsigned char>(i >> 16), static_cast<unsigned char>(i >> 24)};
        CLogFileProxy proxy(channel);
        proxy().LogSentData(bytes, sizeof(bytes), true);
    }
}

extern "C" __declspec(dllexport) void LogPluginShutdown()
{
    CLogFileServer::Ref().Shutdown();
}

// Makes the plug-in call CLogFileServer::Shutdown from its DllMain when it is freed, under the
// loader lock.
extern "C" __declspec(dllexport) void LogPluginShutdownAtDetach()
{
    g_bShutdownAtDetach = true;
}

extern "C" BOOL WINAPI DllMain(HINSTANCE, DWORD reason, LPVOID reserved)
{
    if (reason == DLL_PROCESS_DETACH && reserved == nullptr && g_bShutdownAtDetach)
        CLogFileServer::Ref().Shutdown();
    return TRUE;
}

// One session with a device: connect (and reconnect), run the script or the interactive console
// or the echo device, show the traffic, and sum it up.
#pragma once

#include "output.h"
#include "script.h"
#include "transport.h"
#include "view.h"

#include <tavrin/core/thread.h>

#include <functional>
#include <memory>

namespace term {

// The program's exit codes.
enum EExitCode
{
    ExitOk = 0,          // the session ended normally; every expectation was met
    ExitExpectation = 1, // an expectation was not met in time
    ExitConnection = 2,  // the connection could not be made, or was lost and not restored
    ExitUsage = 3,       // bad command line
    ExitInterrupted = 4, // stopped (Ctrl+C) before the script ended
    ExitReport = 5       // the report could not be written
};

class CKeyboard;

class CSession
{
public:
    // `stop` (manual-reset event, signalled by Ctrl+C) ends every wait of the session.
    CSession(const Options& options, CTermOutput& output, HANDLE stop);
    CSession(const Options& options, CTermOutput& output, HANDLE stop, std::unique_ptr<CTransport> transport);
    ~CSession();
    CSession(const CSession&) = delete;
    CSession& operator=(const CSession&) = delete;

    // Runs the session and prints its summary; returns the exit code.
    int Run();

    const CSessionStats& Stats() const { return m_Stats; }
    // The data log files of the session's connections, in the order they were made.
    const std::vector<ustring>& LogFiles() const { return m_LogFiles; }

private:
    enum EWake
    {
        WakeTimeout,
        WakeData,
        WakeKey,
        WakeStop,
        WakeLost
    };

    bool Stopped() const;
    // Connects, retrying with a growing pause when -reconnect asks for it (a server waits for its
    // next client after a connection ended). False when it gave up or was stopped.
    bool Connect(bool afterLoss);
    // Shows the failure; reconnects when the options (or a server) say so. True when connected again.
    bool ConnectionLost(const tavrin::CStdException& e);
    // Waits up to `timeoutMs` (INFINITE: no limit) for traffic, keys or the stop, and handles
    // the bytes that arrive.
    EWake Pump(unsigned int timeoutMs, CKeyboard* keys);
    void Received(const Bytes& data);
    // False when the connection failed (and was not restored) or the session was stopped.
    bool Send(const Bytes& data);

    // Pumps until `done` holds or `timeoutMs` have passed (`elapsed` tells how long it took);
    // ExitOk, or the exit code of a stop or of a connection lost for good.
    int PumpUntil(unsigned int timeoutMs, const std::function<bool()>& done, __int64& elapsed);
    int RunScript();
    int RunInteractive();
    int RunMonitor();
    // Handles the key after Ctrl+T; false to end the session.
    bool Command(wchar_t key, CKeyboard& keys);
    void ShowCommands();
    void SendFile(CKeyboard& keys);

    void PrintSummary(int exitCode);
    tavrin::CTable StatisticsTable() const;
    tavrin::CTable SessionTable(int exitCode) const;
    void FindLogFiles(const std::vector<ustring>& before);
    std::vector<ustring> ListLogFolder() const;

    Options m_Options;
    CTermOutput& m_Output;
    HANDLE m_hStop;
    std::unique_ptr<CTransport> m_pTransport;
    CTrafficView m_View;
    CReceiveBuffer m_Received;
    CSessionStats m_Stats;
    std::vector<ustring> m_LogFiles;
    tavrin::CTable m_Expectations;
    tavrin::CStopWatch m_SinceSend;
    bool m_bSent;
    tavrin::CSystemTime m_Started;
};

// The echo device: every byte it receives goes back at once. It runs on its own thread on any
// transport, and takes the next client (or opens the port again) when a connection ends.
class CEchoDevice
{
public:
    explicit CEchoDevice(std::unique_ptr<CTransport> transport);
    ~CEchoDevice();
    CEchoDevice(const CEchoDevice&) = delete;
    CEchoDevice& operator=(const CEchoDevice&) = delete;

    CTransport& Transport() { return *m_pTransport; }
    void Start();
    // Stops the thread and closes the connection (bounded).
    void Stop();
    unsigned __int64 BytesEchoed() const { return m_nEchoed; }

private:
    unsigned int Run();

    std::unique_ptr<CTransport> m_pTransport;
    tavrin::CThread m_Thread;
    volatile unsigned __int64 m_nEchoed;
};

} // namespace term

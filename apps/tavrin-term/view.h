// The traffic view: bytes of both directions assembled into lines and shown as text, as a hex
// dump, or both.
#pragma once

#include "output.h"

#include <tavrin/util/systemtime.h>

namespace term {

class CTrafficView
{
public:
    // A line ends after a line feed, at kMaxLine bytes, when the other direction speaks, or after
    // kIdleMs without bytes (so that a prompt without line end shows).
    static const size_t kMaxLine = 64;
    static const unsigned int kIdleMs = 100;

    explicit CTrafficView(CTermOutput& output);

    Options::EView GetView() const { return m_eView; }
    void SetView(Options::EView view);

    void Add(EMark direction, const unsigned char* data, size_t size);
    // Shows a line that has been idle for kIdleMs; the session calls it while it waits.
    void Tick();
    // Shows whatever is pending.
    void Flush();

    // The lines of one piece of traffic as the view shows them: the text line (empty in the hex
    // view) and the dump lines (none in the text view).
    static void Render(Options::EView view, const Bytes& data, ustring& text, std::vector<ustring>& dump);

private:
    void Emit(size_t count);

    CTermOutput& m_Output;
    Options::EView m_eView;
    EMark m_eDirection;
    Bytes m_Pending;
    tavrin::CSystemTime m_Time;       // of the pending line's first byte
    tavrin::CStopWatch m_SinceLastByte;
};

} // namespace term

// Heartbeat.h: a line now and then, to see that the printer lives

#ifndef LABELPRINTER_HEARTBEAT_H
#define LABELPRINTER_HEARTBEAT_H

namespace labelPrinter {

class Status;

/// While it lives, the printer's status goes to the standard output every so many seconds. One at a time.
class Heartbeat
{
public:
    static constexpr int mostSeconds = 2000;

    /// @param status   not owned, outlives this object
    /// @param seconds  1 to `mostSeconds`, or 0 for no line at all
    Heartbeat(Status& status, int seconds);

    /// No line comes after this.
    ~Heartbeat();
    Heartbeat(const Heartbeat&) = delete;
    Heartbeat& operator=(const Heartbeat&) = delete;

private:
    bool beats;
};

} // namespace labelPrinter

#endif

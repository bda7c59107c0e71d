#include "Quorvil/GeneralException.h"

#include "Quorvil/QuorvilLog.h"

#include <locale>
#include <ostream>

QUORVIL_LOG_GROUP("Noname");

namespace util {

GeneralException::GeneralException(const std::string& msg_, bool silent)
    : msg(msg_)
{
    if (silent || defaultSilent)
        return;
    const std::string announcement = "Constructing GeneralException with msg " + msg + "\n";
    my_printf("[WARN Quorvil/GeneralException:65]    %s", announcement.c_str());
}

GeneralException::~GeneralException() = default;

const char* GeneralException::what() const noexcept
{
    return msg.c_str();
}

IllegalStateException::IllegalStateException(const std::string& operation, const std::string& state)
    : msg(operation + " called in " + state)
{
}

IllegalStateException::~IllegalStateException() = default;

const char* IllegalStateException::what() const noexcept
{
    return msg.c_str();
}

GeneralExceptionThrower::GeneralExceptionThrower(int err_)
    : err(err_)
{
    // The number is plain decimal, whatever the process's locale groups it into.
    text.imbue(std::locale::classic());
}

GeneralExceptionThrower::~GeneralExceptionThrower() = default;

void GeneralExceptionThrower::handle(int code, const char* name)
{
    if (handled || err != code)
        return;
    text << name;
    handled = true;
}

void GeneralExceptionThrower::completeMsg(const char* where)
{
    if (!handled)
        text << "Unexpected errno (" << err << ")";
    text << " " << where;
}

void GeneralExceptionThrower::throwNow(const char* where)
{
    completeMsg(where);
    throw GeneralException(text.str(), false);
}

void GeneralExceptionThrower::writeNow(const char* where, std::ostream& out)
{
    completeMsg(where);
    out << text.str() << std::endl;
}

} // namespace util

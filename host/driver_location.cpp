#include "rtuplc_host/driver_location.h"

#include <unistd.h>

#include <climits>

#include <QStringList>

#include "rtuplc_host/line_limits.h"

namespace rtuhost {

std::string defaultDriver()
{
    char self[PATH_MAX];
    const ssize_t n = readlink("/proc/self/exe", self, sizeof self - 1);
    if (n > 0) {
        std::string beside(self, size_t(n));
        beside.erase(beside.rfind('/') + 1);
        beside += RTUPLC_DRIVER_FILE;
        if (access(beside.c_str(), F_OK) == 0)
            return beside;
    }
    return RTUPLC_DRIVER_SONAME;
}

DriverDefaults driverDefaults(const DriverApi &api)
{
    enum Field { kLineFirst = 1, kLineFields = 4, kAddress = 7, kPort = 8, kName = 9 };
    QString text;
    api.getDriverParameter(text);
    const QStringList f = text.split(',');
    DriverDefaults d;
    if (f.size() >= kLineFirst + kLineFields)
        d.line = f.mid(kLineFirst, kLineFields).join(',').toStdString();
    if (f.size() > kAddress && !f[kAddress].isEmpty())
        d.address = f[kAddress].toStdString();
    bool ok = false;
    const int port = f.size() > kPort ? f[kPort].toInt(&ok) : 0;
    if (ok && port >= kLowestPort && port <= kHighestPort)
        d.port = port;
    if (f.size() > kName)
        d.name = f[kName].toStdString();
    return d;
}

} // namespace rtuhost

// A library that calls itself a driver but exports only part of the interface: a host
// must refuse it and name what is missing.
#include "rtuplc.h"

extern "C" __attribute__((visibility("default"))) void intf_getProtocolType(int &type)
{
    type = 0;
}

extern "C" __attribute__((visibility("default"))) void intf_getDriverParameter(QString &param)
{
    param = QStringLiteral("0,9600,8,EVEN,1,0,1,127.0.0.1,8000,partial");
}

#include "common/paths.h"

#include <cstdio>

#include <Poco/RegularExpression.h>
#include <Poco/String.h>

namespace Orvex {
namespace Paths {

std::string serviceName(const std::string& mac)
{
    return std::string(kServicePrefix) + "@" + mac;
}

std::string busAddress(const std::string& mac)
{
    return std::string("@") + kBusDirectory + "/" + serviceName(mac);
}

std::string lockPath(const std::string& mac)
{
    char path[256];
    std::snprintf(path, sizeof path, kLockFormat, mac.c_str());
    return path;
}

std::string statusPath(const std::string& mac)
{
    return std::string(kStatusDirectory) + "/" + serviceName(mac) + ".status";
}

std::string configPath(const std::string& mac)
{
    return std::string(kConfigDirectory) + "/" + serviceName(mac) + ".conf";
}

std::string credentialPath(const std::string& mac, bool encrypted)
{
    return std::string(kConfigDirectory) + "/" + serviceName(mac) + (encrypted ? ".cred" : ".pass");
}

std::string unitName(const std::string& mac)
{
    return serviceName(mac) + ".service";
}

std::string dropInDirectory(const std::string& mac)
{
    return std::string(kUnitDirectory) + "/" + unitName(mac) + ".d";
}

std::string dropInPath(const std::string& mac)
{
    return dropInDirectory(mac) + "/credential.conf";
}

std::string normaliseMac(std::string text)
{
    return Poco::toLower(Poco::trim(text));
}

bool validMac(const std::string& mac)
{
    static const Poco::RegularExpression expression(kMacPattern);
    return expression.match(mac);
}

}  // namespace Paths
}  // namespace Orvex

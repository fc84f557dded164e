#include <TolvaCore/CTolvaPlatformIF.h>

CTolvaPlatformIF::CTolvaPlatformIF() = default;

CTolvaPlatformIF::CTolvaPlatformIF(const CTolvaPlatformIF&) = default;

CTolvaPlatformIF& CTolvaPlatformIF::operator=(const CTolvaPlatformIF&) = default;

CTolvaPlatformIF::~CTolvaPlatformIF() = default;

bool CTolvaPlatformIF::TolvaPlatformInit() {
    return true;
}

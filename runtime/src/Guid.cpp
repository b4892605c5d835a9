// Identity services: GUIDs and the focus name.
#include "FxUtil.h"
#include "hxruntime/HostApi.h"
#include "hxutil/Random.h"

// RFC 4122 version 4.
std::string CreateGuid() { return hxutil::RandomUuid(); }

std::string HXPI_Focus::getFocus() { return hxruntime::GetFocusName(); }

// CDiskMapper: the plug-in's block-device mapper. The framework's Linux mapper does all the
// work; this class exists so the plug-in owns (and deletes) a mapper of its own type.
#pragma once

#include "DiskMapperLinux.h"

class CDiskMapper : public CDiskMapperLinux {
public:
    CDiskMapper() = default;
    ~CDiskMapper() override;
};

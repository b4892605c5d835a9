#include "DiskMapper.h"

CDiskMapper::~CDiskMapper() = default;

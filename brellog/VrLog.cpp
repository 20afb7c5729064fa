#include "brellog/VrLog.h"

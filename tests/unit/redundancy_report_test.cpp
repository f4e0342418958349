#include "fake_platform.h"

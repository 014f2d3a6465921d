// disk_env.h - kept for the tool's tests: the fixture is support/fixture.h.
#pragma once
#include "support/fixture.h"

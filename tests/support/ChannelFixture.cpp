// The channel test helpers are header-only; this file gives the support library its one source.
#include "support/ChannelFixture.h"

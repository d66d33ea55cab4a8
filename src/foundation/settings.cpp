#include "foundation/settings.h"

ReplicationSettings g_settings;

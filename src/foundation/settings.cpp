#include "foundation/settings.h"

ReplicationSettings g_settings;
DaemonMode g_mode;

#include "config/settings.h"

ReplicationSettings g_settings;
DaemonMode g_mode;

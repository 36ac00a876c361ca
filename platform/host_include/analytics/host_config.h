// Host-only configuration of the analytics commit.
#ifndef ANALYTICS_HOST_CONFIG_H
#define ANALYTICS_HOST_CONFIG_H

#include <string>

// Points go to the file `path` from now on ("" for nowhere, "-" for stderr);
// the first file is $VELORA_STATS.
void alarmUseStatsFile(const std::string& path);

#endif  // ANALYTICS_HOST_CONFIG_H

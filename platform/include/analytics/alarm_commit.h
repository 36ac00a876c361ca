// Analytics: success points committed by the modules of the app.
#ifndef ANALYTICS_ALARM_COMMIT_H
#define ANALYTICS_ALARM_COMMIT_H

// Commits one point. Fire and forget; callable from any thread. On the host
// each point is one JSON line in the file named by VELORA_STATS.
void alarmCommitSuccess2(const char* module, const char* monitorPoint, const char* arg);

#endif  // ANALYTICS_ALARM_COMMIT_H

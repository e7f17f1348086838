// Watching volumes come, go and change name, and scheduling the debounced sync.
#include "app/AppDelegate.h"

void AppDelegate::configureMountedVolumeMonitoring() {}
void AppDelegate::removeMountedVolumeMonitoring() {}
void AppDelegate::scheduleMountedVolumesSync(const QString &, bool) {}

// Asking the agent's /healthz whether it runs and which version it is.
#include "app/AppDelegate.h"

void AppDelegate::queryHealth(HealthCompletion completion)
{
    completion(false, lastKnownVersion);
}

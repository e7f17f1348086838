// Starting and stopping the agent through its control script.
#include "app/AppDelegate.h"

void AppDelegate::startAgentFromMenu()
{
    startAgent(true);
}

void AppDelegate::stopAgentFromMenu()
{
    requestAgentStop(false);
}

void AppDelegate::startAgent(bool) {}

void AppDelegate::requestAgentStop(bool terminateWhenFinished)
{
    if (terminateWhenFinished)
        terminateAfterStop = true;
    if (terminateAfterStop)
        finishTerminationAfterStop(1);
}

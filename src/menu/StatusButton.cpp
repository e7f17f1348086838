// The status button and its drawn badge.
#include "app/AppDelegate.h"

void AppDelegate::configureStatusButton(bool) {}

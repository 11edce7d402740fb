// The libraries hide everything except what is marked here.
#pragma once

#define TAV_EXPORT __attribute__((visibility("default")))

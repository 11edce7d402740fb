// The libraries hide everything except what is marked here.
#ifndef TAV_CLIENT_EXPORT_H
#define TAV_CLIENT_EXPORT_H

#define TAV_EXPORT __attribute__((visibility("default")))

#endif

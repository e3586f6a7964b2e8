/* The application's lifecycle callbacks, as main hands them to the framework. user_data: the appdata.
   Thread: the EFL main loop. */
#ifndef BRISEL_APP_LIFECYCLE_H
#define BRISEL_APP_LIFECYCLE_H

#include "app_efl.h"
#include "brisel-app-data.h"

bool app_create(void *user_data); /* false: no window, the application ends */
void app_terminate(void *user_data);
int app_pause(void *user_data);
int app_resume(void *user_data);
int app_reset(service_h service, void *user_data); /* a launch request */
int app_prepare(void *user_data);                  /* started ahead of the first launch request */
void app_starting(void *user_data);                /* before the toolkit starts */
int app_lang_changed(void *user_data);
int app_region_changed(void *user_data);

#endif

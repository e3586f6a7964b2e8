/*
 * Pickover: lets the phone take over what is on screen. A registration is a setting of the session that names the
 * application and the time it expires; "take over" (brisel-watchctl pickover) finds the live registration and
 * writes the application's id to the settings key "file/private/wcontext/service_msg", which the application watches.
 * Thread: the EFL main loop. 0 on success, negative otherwise.
 */
#ifndef BRISEL_PLATFORM_PICKOVER_H
#define BRISEL_PLATFORM_PICKOVER_H

/* Valid for that many seconds (1 to 3600) from now, by the monotonic clock; a new registration replaces the old. */
int register_pickover(const char *app_id, int seconds);
/* Negative when this process has no registration. */
int unregister_pickover(void);

/* For tools. 0: taken over; -1: nobody is registered (or the registration has expired). */
int pickover_take_over(void);

#endif

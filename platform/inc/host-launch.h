/* Launching applications on the paired phone; the common library of the host link does it. Thread: the EFL main loop.
 */
#ifndef BRISEL_PLATFORM_HOST_LAUNCH_H
#define BRISEL_PLATFORM_HOST_LAUNCH_H

/* Asks the phone, through the host service, to open its application of that kind ("email") on the given mails.
   The ids are copied. 0 when it is kept on the disk until the service has it, where it waits for a phone, each for two
   minutes at most; -1 when it is not taken. */
int launch_host_predefined_application(const char *kind, const int *ids, int count);

/* How far mail_id has been read, in bytes of its text: goes along with the next launch, if that names the mail, and is
   forgotten with it. 0 and less: not known, or not begun. */
void launch_host_set_position(int mail_id, int position);

#endif

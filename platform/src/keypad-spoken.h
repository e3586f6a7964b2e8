/* What who only listens is told of the keypad: its keys as buttons. Nothing where nobody does. Thread: the EFL main
 * loop. */
#ifndef BRISEL_PLATFORM_KEYPAD_SPOKEN_H
#define BRISEL_PLATFORM_KEYPAD_SPOKEN_H

#include <Evas.h>

#include <string>

/* True: the keys are to be added now. False: they are told already, or to nobody. */
bool keypad_spoken_begin(Evas_Object *conformant, Evas_Object *ground);
void keypad_spoken_add(int index, Evas_Object *picture, void (*press)(int index));
/* By the id of a word, the key's text, or both where there is one beside the word; pressed: 0 or 1, -1: no such state.
 */
void keypad_spoken_key(int index, const char *id, const std::string &text, int pressed);
/* is_gone: the conformant is going, and takes what was told along. */
void keypad_spoken_end(bool is_gone);

#endif

/*
 * The simulated television for programs written in C (lum-host): registers
 * its platform callbacks with the agent and describes its state in one line.
 * The C++ side is tools/tv/SimulatedTv.h.
 */
#ifndef LUM_SIMULATED_TV_H
#define LUM_SIMULATED_TV_H

#include <stddef.h>

#ifdef __cplusplus
extern "C" {
#endif

/* Registers the television's callbacks with the agent; call it before
   LumInit so that the agent starts with the television's facts. Its readable
   configuration files go below `fileDirectory` (NULL or "": none). Returns 0,
   or -1 when the directory could not be prepared; the callbacks are
   registered either way. */
int lum_sim_tv_install(const char* fileDirectory);

/* Removes the callbacks again: the agent answers with its defaults. */
void lum_sim_tv_uninstall(void);

/* Writes a one-line state summary ("picture=Cinema sound=Standard source=TV
   volume=15 mute=Unmute keys=KEY_HOME"), cut to fit `size` and always
   terminated. Returns the length of the whole summary, or -1 on failure. */
int lum_sim_tv_describe(char* buffer, size_t size);

#ifdef __cplusplus
}
#endif

#endif /* LUM_SIMULATED_TV_H */

/* The commands of the heap collector, as they travel over the command channel (veskrt/command_handler.h).
 * They take no parameters and no payload. */
#ifndef VESK_HEAP_COMMANDS_H
#define VESK_HEAP_COMMANDS_H

enum VeskHeapCommand {
  VESK_HEAP_COMMAND_SNAPSHOT = 1, /* write a result file of the heap as it is now */
  VESK_HEAP_COMMAND_RESET = 2,    /* count from zero; blocks that are live now count no more */
  VESK_HEAP_COMMAND_PAUSE = 3,    /* count no more calls until resumed */
  VESK_HEAP_COMMAND_RESUME = 4    /* count again */
};

#endif

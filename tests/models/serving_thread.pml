/* The stop hand-shake of a serving thread: the upload thread starts it, replaces its Mongoose server
 * RECONNECTS times, each time with a new thread, and asks it to stop in the end. See
 * log_consumer/qv_log_consumer_mg.cpp; the names are its.
 *
 * The fixed pauses of the service are left out on purpose: every thread may be as late as it
 * likes, so what is shown does not hang on a pause that is long enough. The wait for the claim
 * may end without it (the minute is over); the reconnect is then given up, and the next one comes
 * with the thread still asked to stop.
 *
 * Shown: two threads never poll one server, none is polled or destroyed when it is gone, and nobody
 * is stuck. Every server is destroyed but one whose thread came only after the claim was taken
 * from it (`orphans` of them, at most one for each reconnect).
 *
 * Mistakes to be found (-DNAME): NO_CLAIM lets the pause alone part the threads, LATE_RELEASE starts
 * the new thread before the claim is let go, which leaves a server that nobody serves.
 */
#define RECONNECTS 2
#define SERVERS (RECONNECTS + 1)

byte server_ptr = 1; /* mg_server_ptr; 0: null */
byte created = 1;
byte destroyed = 0;
byte orphans = 0;
bool exit_flag = false;
bool served = false; /* the claim */
byte polling[SERVERS + 2];
bool gone[SERVERS + 2];
byte threads = 0;

proctype serving_thread() {
  byte mine;
#ifndef NO_CLAIM
  if
  :: atomic { !served -> served = true }
  :: atomic { served -> goto gone_again } /* another one serves it */
  fi;
#endif
  if
  :: server_ptr == 0 -> goto let_go
  :: else -> skip
  fi;
  do
  :: exit_flag -> break
  :: else ->
     /* mg_poll_server() */
     atomic {
       mine = server_ptr;
       assert(mine != 0 && !gone[mine]);
       polling[mine]++;
       assert(polling[mine] == 1)
     }
     atomic { polling[mine]-- }
  od;
  /* mg_destroy_server() */
  atomic {
    mine = server_ptr;
    if
    :: mine != 0 ->
       assert(polling[mine] == 0 && !gone[mine]);
       gone[mine] = true;
       destroyed++
    :: else -> skip
    fi;
    server_ptr = 0
  }
  exit_flag = false;
let_go:
#ifndef NO_CLAIM
  served = false;
#endif
gone_again:
  threads--
}

active proctype upload_thread() {
  byte reconnects = 0;
  threads++;
  run serving_thread();
  do
  :: reconnects < RECONNECTS ->
     reconnects++;
     exit_flag = true;
     /* sleep(3), then takeWithinAMinute() */
#ifndef NO_CLAIM
     if
     :: atomic { !served -> served = true }
     :: goto given_up
     fi;
#endif
     /* createServer() */
     atomic {
       if
       :: server_ptr != 0 -> orphans++
       :: else -> skip
       fi;
       created++;
       server_ptr = created
     }
     exit_flag = false;
#ifdef LATE_RELEASE
     threads++;
     run serving_thread();
     served = false
#else
#ifndef NO_CLAIM
     served = false;
#endif
     threads++;
     run serving_thread()
#endif
given_up:
     skip
  :: else -> break
  od;
  /* terminate_lc_mg_client(); the process may wait for nobody, the model waits for all */
  exit_flag = true;
  threads == 0;
  assert(created == destroyed + orphans);
#ifndef NO_CLAIM
  assert(!served)
#endif
}

/* The stop hand-shake of a serving thread: the upload thread starts it and connects CONNECTS times,
 * which replaces the Mongoose server, each time with a new thread, once a connection has been made;
 * it asks the thread to stop in the end. See log_consumer/qv_log_consumer_mg.cpp; the names are its.
 *
 * The fixed pauses of the service are left out on purpose: every thread may be as late as it
 * likes, so what is shown does not hang on a pause that is long enough. The wait for the claim
 * may end without it (the minute is over); the reconnect is then given up, and the next one comes
 * with the thread still asked to stop.
 *
 * Whatever can fail may fail each time: creating a server, starting a thread, making a connection.
 *
 * Shown: two threads never poll one server, none is polled, connected to or destroyed when it is
 * gone, and nobody is stuck. Unless the first server could not be created, each connect has one.
 * Every server is destroyed but one whose thread came only after the claim was taken from it, or
 * could not be started: left behind at the next reconnect (`orphans`), or at the end.
 *
 * Mistakes to be found (-DNAME): NO_CLAIM lets the pause alone part the threads. LATE_RELEASE starts
 * the new thread before the claim is let go, which leaves a server that nobody serves. When no
 * server could be created, KEEPS_CLAIM does not let the claim go, and CONNECTS_ANYWAY goes on.
 * DESTROYS_UNSERVED destroys the server whose thread could not be started, and makes no connection:
 * an earlier thread that came late may serve it.
 */
#define CONNECTS 3
#define SERVERS CONNECTS

byte server_ptr = 0; /* mg_server_ptr; 0: null */
byte created = 0;
byte destroyed = 0;
byte orphans = 0;
bool exit_flag = false;
bool served = false; /* the claim */
byte polling[SERVERS + 1];
byte connecting = 0;
bool gone[SERVERS + 1];
byte threads = 0;
bool started = true; /* every thread so far */

inline create_server() {
  atomic {
    if
    :: server_ptr != 0 -> assert(polling[server_ptr] == 0); orphans++
    :: else -> skip
    fi;
    if
    :: created++; server_ptr = created
    :: server_ptr = 0
    fi
  }
}

inline destroy_server() {
  atomic {
    if
    :: server_ptr != 0 ->
       assert(polling[server_ptr] == 0 && connecting != server_ptr && !gone[server_ptr]);
       gone[server_ptr] = true;
       destroyed++
    :: else -> skip
    fi;
    server_ptr = 0
  }
}

inline start_thread() {
  if
  :: threads++; run serving_thread()
  :: started = false
  fi
}

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
  destroy_server();
  exit_flag = false;
let_go:
#ifndef NO_CLAIM
  served = false;
#endif
gone_again:
  threads--
}

active proctype upload_thread() {
  byte connects = 0;
  bool client = false; /* not null */
  create_server();
  start_thread();
  do
  :: connects < CONNECTS ->
     connects++;
     if
     :: client ->
        exit_flag = true;
        /* sleep(3), then takeWithinAMinute() */
#ifndef NO_CLAIM
        if
        :: atomic { !served -> served = true }
        :: goto given_up
        fi;
#endif
        create_server();
#ifndef CONNECTS_ANYWAY
        if
        :: server_ptr == 0 ->
#if !defined(NO_CLAIM) && !defined(KEEPS_CLAIM)
           served = false;
#endif
           goto given_up
        :: else -> skip
        fi;
#endif
        exit_flag = false;
#ifdef LATE_RELEASE
        start_thread();
        served = false
#else
#ifndef NO_CLAIM
        served = false;
#endif
        start_thread();
#ifdef DESTROYS_UNSERVED
        if
        :: !started -> destroy_server(); goto given_up
        :: else -> skip
        fi
#endif
#endif
     :: else -> skip
     fi;
     /* mg_connect() */
     atomic {
       assert(server_ptr != 0 || created == 0);
       assert(!gone[server_ptr]);
       connecting = server_ptr
     }
     atomic {
       connecting = 0;
       if
       :: server_ptr != 0 -> client = true
       :: client = false
       fi
     }
given_up:
     skip
  :: else -> break
  od;
  /* terminate_lc_mg_client(); the process may wait for nobody, the model waits for all */
  exit_flag = true;
  threads == 0;
  assert(server_ptr == 0 || !started);
  assert(created == destroyed + orphans + (server_ptr != 0 -> 1 : 0));
#ifndef NO_CLAIM
  assert(!served)
#endif
}

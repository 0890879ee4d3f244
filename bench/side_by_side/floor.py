"""How long a pass must take: the pauses and polls that the service is made to keep, and nothing else.

Per file, in whole seconds:

- 5 s of pause before the send.
- The send offers the request (time 0) and looks for the outcome at 0, 1, 2 ... s. At 0 nothing can
  have happened yet, so it takes at least 1 s.
- The request is written by the connection's next poll. Polls come 2 s apart while nothing happens;
  a reply ends a poll early, so they are counted from the last reply on.

Where the polls come to lie against the sends: let the reply to a file come `lag` seconds after its
request was offered (0 < lag <= 1; server and network take no time). The send ends 1 s after the
offer, the next offer comes 5 s later: 6 s after the last one, 6 - lag after the reply. The polls then
lie 2, 4, 6 s after the reply, so the next request is written at the third, again `lag` after its
offer. So each file takes 5 + 1 = 6 s for ever, and n files take

    6 n seconds.

Only the first file may take a second more, when the poll before it missed it by more than a second
(1 < lag < 2). All that the service does itself (fuser, reading, framing, sending, marking) makes lag
smaller; once it has used lag up, a file waits for the next poll and takes 7 s. `play` plays this with
any cost of one's own.
"""
import math

PAUSE = 5  # before each send
LOOK = 1  # between two looks for the outcome
POLL = 2  # between two polls while nothing happens


def floor_of(files):
    """Seconds that no service with these pauses can do without."""
    return files * (PAUSE + LOOK)


def play(files, lag, own=0.0):
    """Seconds from before the first pause to the last outcome.

    lag -- seconds by which the first request is offered before a poll, 0 < lag < POLL
    own -- seconds that the service itself takes for each file, before its pause
    """
    now = 0.0
    poll = own + PAUSE + lag  # one of the polls; the others lie POLL before and behind
    for _ in range(files):
        offered = now + own + PAUSE
        written = poll + POLL * math.ceil((offered - poll) / POLL - 1e-9)
        poll = written
        now = offered + LOOK * max(1, math.ceil((written - offered) / LOOK - 1e-9))
    return now

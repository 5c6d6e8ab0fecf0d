# Hostile devices (a scripted raw server of the harness) and what the session tells its
# operator: failure causes, status and observer (run again under ThreadSanitizer).
# The two exchanges that run into the 10 s deadline take 20 s each.
orvex_session_test(session_hostile_test session_hostile_test.cpp SLOW "EndsWithinTheExchangeBound$")
orvex_session_test(session_status_test session_status_test.cpp LABELS tsan)

# Hostile devices (a scripted raw server of the harness) and what the session tells its
# operator: failure causes, status and observer (run again under ThreadSanitizer).
orvex_session_test(session_hostile_test session_hostile_test.cpp)
orvex_session_test(session_status_test session_status_test.cpp LABELS tsan)

import threading
import zuresource as zr

broker, head = zr.Broker(), zr.Resource("Head")
tracker, speaker = zr.Owner("tracker", "Tracker", broker), zr.Owner("speaker", "Speaker", broker)
broker.add_module("Tracker", lambda wanted: head.release(tracker))  # gives the head up when asked

def speak():
    with head.acquired(speaker, timeout=5):  # waits while the tracker is asked
        print("speaking:", head.http_get())

tracking, speaking = threading.Thread(target=head.wait_for, args=(tracker,)), threading.Thread(target=speak)
tracking.start(); tracking.join(); speaking.start(); speaking.join()
print("after:", head.http_get())

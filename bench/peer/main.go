// The like of bench/sender.cpp on pion, with the same commands and replies: what a widely used stack needs for the
// same work.
package main

import (
	"bufio"
	"encoding/json"
	"fmt"
	"os"
	"sort"
	"strings"
	"sync"
	"syscall"
	"time"

	"github.com/pion/interceptor"
	"github.com/pion/webrtc/v3"
	"github.com/pion/webrtc/v3/pkg/media"
)

const (
	videoInterval = 50 * time.Millisecond
	audioInterval = 20 * time.Millisecond
)

type command struct {
	Do        string `json:"do"`
	Session   int    `json:"session"`
	SDP       string `json:"sdp"`
	Candidate string `json:"candidate"`
	Stream    string `json:"stream"`
	Keys      string `json:"keys"`
	AtOnce    bool   `json:"atOnce"`
}

var output sync.Mutex

func tell(line map[string]interface{}) {
	text, err := json.Marshal(line)
	check(err)
	output.Lock()
	defer output.Unlock()
	fmt.Printf("%s\n", text)
}

func check(err error) {
	if err != nil {
		fmt.Fprintln(os.Stderr, err)
		os.Exit(1)
	}
}

// frameFile is a file of access units.
type frameFile struct {
	file   *os.File
	begins []int64
	sizes  []int
}

func openFrames(path string) *frameFile {
	file, err := os.Open(path)
	check(err)
	sizes, err := os.ReadFile(path + ".sizes")
	check(err)
	frames := &frameFile{file: file}
	begin := int64(0)
	for _, line := range strings.Fields(string(sizes)) {
		var size int
		_, err := fmt.Sscan(line, &size)
		check(err)
		frames.begins = append(frames.begins, begin)
		frames.sizes = append(frames.sizes, size)
		begin += int64(size)
	}
	return frames
}

func (frames *frameFile) read(index int, buffer []byte) []byte {
	frame := buffer[:frames.sizes[index]]
	_, err := frames.file.ReadAt(frame, frames.begins[index])
	check(err)
	return frame
}

// sender holds the tracks, which pion packetises once for all sessions, and the sessions.
type sender struct {
	api        *webrtc.API
	video      *webrtc.TrackLocalStaticSample
	audio      *webrtc.TrackLocalStaticSample
	sessions   map[int]*webrtc.PeerConnection
	created    int
	wantsKey   chan bool
	mutex      sync.Mutex
	writeTimes []int
}

func newSender() *sender {
	engine := &webrtc.MediaEngine{}
	check(engine.RegisterCodec(webrtc.RTPCodecParameters{
		RTPCodecCapability: webrtc.RTPCodecCapability{
			MimeType: webrtc.MimeTypeH264, ClockRate: 90000,
			SDPFmtpLine:  "level-asymmetry-allowed=1;packetization-mode=1;profile-level-id=42e01f",
			RTCPFeedback: []webrtc.RTCPFeedback{{Type: "nack"}, {Type: "nack", Parameter: "pli"}, {Type: "ccm", Parameter: "fir"}},
		},
		PayloadType: 102,
	}, webrtc.RTPCodecTypeVideo))
	check(engine.RegisterCodec(webrtc.RTPCodecParameters{
		RTPCodecCapability: webrtc.RTPCodecCapability{MimeType: webrtc.MimeTypePCMU, ClockRate: 8000},
		PayloadType:        0,
	}, webrtc.RTPCodecTypeAudio))
	registry := &interceptor.Registry{}
	check(webrtc.ConfigureNack(engine, registry))
	check(webrtc.ConfigureRTCPReports(registry))
	video, err := webrtc.NewTrackLocalStaticSample(webrtc.RTPCodecCapability{MimeType: webrtc.MimeTypeH264}, "video", "camera")
	check(err)
	audio, err := webrtc.NewTrackLocalStaticSample(webrtc.RTPCodecCapability{MimeType: webrtc.MimeTypePCMU}, "audio", "camera")
	check(err)
	return &sender{
		api:   webrtc.NewAPI(webrtc.WithMediaEngine(engine), webrtc.WithInterceptorRegistry(registry)),
		video: video, audio: audio, sessions: map[int]*webrtc.PeerConnection{},
		wantsKey: make(chan bool, 1),
	}
}

func (s *sender) create() int {
	peer, err := s.api.NewPeerConnection(webrtc.Configuration{})
	check(err)
	s.created++
	session := s.created
	s.sessions[session] = peer
	for _, track := range []webrtc.TrackLocal{s.video, s.audio} {
		rtpSender, err := peer.AddTrack(track)
		check(err)
		go func() {
			buffer := make([]byte, 1500)
			for {
				if _, _, err := rtpSender.Read(buffer); err != nil {
					return
				}
			}
		}()
	}
	peer.OnICECandidate(func(candidate *webrtc.ICECandidate) {
		if candidate == nil {
			return
		}
		text, err := json.Marshal(candidate.ToJSON())
		check(err)
		tell(map[string]interface{}{"event": "candidate", "session": session, "candidate": string(text)})
	})
	peer.OnConnectionStateChange(func(state webrtc.PeerConnectionState) {
		if state == webrtc.PeerConnectionStateConnected {
			select {
			case s.wantsKey <- true:
			default: // is asked for already
			}
		}
		tell(map[string]interface{}{"event": "state", "session": session, "state": int(state)})
	})
	return session
}

func (s *sender) offer(session int, sdp string) int {
	start := time.Now()
	peer := s.sessions[session]
	check(peer.SetRemoteDescription(webrtc.SessionDescription{Type: webrtc.SDPTypeOffer, SDP: sdp}))
	answer, err := peer.CreateAnswer(nil)
	check(err)
	tell(map[string]interface{}{
		"event": "answer", "session": session, "micros": time.Since(start).Microseconds(), "sdp": answer.SDP,
	})
	check(peer.SetLocalDescription(answer))
	return 0
}

func (s *sender) candidate(session int, text string) int {
	var candidate webrtc.ICECandidateInit
	check(json.Unmarshal([]byte(text), &candidate))
	if s.sessions[session].AddICECandidate(candidate) != nil {
		return -1
	}
	return 0
}

func (s *sender) close(session int) int {
	peer := s.sessions[session]
	delete(s.sessions, session)
	go func() { check(peer.Close()) }()
	return 0
}

func (s *sender) start(streamPath, keysPath string, atOnce bool) {
	stream := openFrames(streamPath)
	var keys *frameFile
	if keysPath != "" {
		keys = openFrames(keysPath)
	}
	go s.writeVideo(stream, keys, atOnce)
	go s.writeAudio()
}

// writeVideo learns of a new viewer also between two frames, unlike a caller of writeVideoData.
func (s *sender) writeVideo(stream, keys *frameFile, atOnce bool) {
	buffer := make([]byte, 1<<20)
	// Frame 0 is a key frame also in a stream that has no other: there it never goes out.
	first := 0
	if keys != nil {
		first = 1
	}
	next := first
	wanted := false
	tick := time.NewTicker(videoInterval)
	for {
		select {
		case <-s.wantsKey:
			if keys != nil && atOnce {
				s.writePicture(keys.read(next, buffer), time.Millisecond)
			} else {
				wanted = true
			}
			continue
		case <-tick.C:
		}
		frames := stream
		if keys != nil && wanted {
			frames = keys
		}
		wanted = false
		s.writePicture(frames.read(next, buffer), videoInterval)
		if next++; next == len(stream.sizes) {
			next = first
		}
	}
}

func (s *sender) writePicture(frame []byte, duration time.Duration) {
	begin := time.Now()
	check(s.video.WriteSample(media.Sample{Data: frame, Duration: duration}))
	s.mutex.Lock()
	defer s.mutex.Unlock()
	s.writeTimes = append(s.writeTimes, int(time.Since(begin).Microseconds()))
}

func (s *sender) writeAudio() {
	silence := make([]byte, 160)
	for i := range silence {
		silence[i] = 0xff
	}
	for due := time.Now(); ; due = due.Add(audioInterval) {
		time.Sleep(time.Until(due))
		check(s.audio.WriteSample(media.Sample{Data: silence, Duration: audioInterval}))
	}
}

func (s *sender) usage() map[string]interface{} {
	var usage syscall.Rusage
	check(syscall.Getrusage(syscall.RUSAGE_SELF, &usage))
	line := map[string]interface{}{
		"event": "result", "value": 0, "processorMicros": (usage.Utime.Nano() + usage.Stime.Nano()) / 1000,
	}
	s.mutex.Lock()
	times := s.writeTimes
	s.writeTimes = nil
	s.mutex.Unlock()
	if len(times) > 0 {
		sort.Ints(times)
		line["writeP50"], line["writeP99"], line["writeMax"] = times[len(times)/2], times[len(times)*99/100], times[len(times)-1]
	}
	return line
}

func main() {
	s := newSender()
	input := bufio.NewScanner(os.Stdin)
	input.Buffer(make([]byte, 1<<16), 1<<20)
	for input.Scan() {
		var c command
		check(json.Unmarshal(input.Bytes(), &c))
		value := 0
		switch c.Do {
		case "usage":
			tell(s.usage())
			continue
		case "create":
			value = s.create()
		case "offer":
			value = s.offer(c.Session, c.SDP)
		case "candidate":
			value = s.candidate(c.Session, c.Candidate)
		case "close":
			value = s.close(c.Session)
		case "start":
			s.start(c.Stream, c.Keys, c.AtOnce)
		}
		tell(map[string]interface{}{"event": "result", "value": value})
	}
}

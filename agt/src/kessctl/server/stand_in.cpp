// A stand-in for the central server.
#include "server/stand_in.h"

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "field.h"
#include "tcp_base.h"
#include "tcp_recv.h"
#include "tcp_send.h"
#include "tls.h"
#include "wait.h"
#include "wire/frame.h"

namespace kessctl {
namespace {

agt::unique_fd make_event() {
    return agt::unique_fd(eventfd(0, EFD_CLOEXEC));
}

void raise_event(const agt::unique_fd& event) {
    eventfd_write(event.get(), 1);
}

int port_of(int sockfd) {
    sockaddr_in own{};
    socklen_t size = sizeof own;
    getsockname(sockfd, reinterpret_cast<sockaddr*>(&own), &size);
    return ntohs(own.sin_port);
}

std::string bytes_of(const TCP_CMD_MSG& frame) {
    return std::string(reinterpret_cast<const char*>(&frame), sizeof frame);
}

std::vector<TCP_CMD_MSG> blocks_of(const std::vector<SERVICE_ELEMENT>& services) {
    std::vector<TCP_CMD_MSG> blocks;
    std::size_t at = 0;
    do {
        const std::size_t count = std::min<std::size_t>(services.size() - at, SERVICE_ELEMENT_MAX);
        blocks.push_back(
            service_block_frame(services.data() + at, count, at + count == services.size()));
        at += count;
    } while (at < services.size());
    return blocks;
}

TCP_CMD_MSG health_answer(const std::string& svr_gap_time) {
    TCP_CMD_MSG answer = start_frame(MSG_HEALTH_CHECK_RSP);
    BODY_HEALTH_CHECK_RSP& body = answer.body.health_check_rsp;
    body.result_code[0] = '0';
    agt::put_text(body.svr_gap_time, svr_gap_time.c_str());
    return answer;
}

// The result stands at the same place in every response.
TCP_CMD_MSG result_answer(char type, char result) {
    TCP_CMD_MSG answer = start_frame(type);
    answer.body.device_info_rsp.result_code[0] = result;
    return answer;
}

TCP_CMD_MSG notify_answer(const TCP_CMD_MSG& request) {
    TCP_CMD_MSG answer = result_answer(MSG_NOTIFY_ACTIVE_SERVICE_DETAIL_RSP, '0');
    std::memcpy(answer.body.notify_active_service_detail_rsp.element_num,
                request.body.notify_active_service_detail_req.element_num,
                sizeof answer.body.notify_active_service_detail_rsp.element_num);
    return answer;
}

void spoil(std::string& answer, const answer_fault& fault) {
    if (fault.garbage)
        answer.assign(TCP_CMD_MSG_SIZE, '?');
    if (fault.wrong_magic)
        answer[0] = '?';
    if (fault.wrong_type != '\0')
        answer[offsetof(TCP_CMD_HDR, msg_type)] = fault.wrong_type;
}

} // namespace

void stand_in::use_tls(std::shared_ptr<agt::tls_identity> identity,
                       std::function<void(const std::string&)> refused) {
    identity_ = std::move(identity);
    refused_ = std::move(refused);
}

std::string stand_in::start(const std::string& address, int port, traffic_observer observer) {
    stop();
    address_ = address;
    port_ = port;
    end_ = make_event();
    {
        const agt::lock_guard lock(observer_mutex_);
        observer_ = std::move(observer);
    }
    {
        const agt::lock_guard lock(mutex_);
        messages_.clear();
        accepted_ = 0;
        stopping_ = false;
    }
    return open_listener();
}

void stand_in::stop() {
    close_listener(); // so that nobody adds or removes connections any more
    std::list<connection> ending;
    {
        const agt::lock_guard lock(mutex_);
        ending.swap(connections_);
        stopping_ = true;
        if (end_.valid())
            raise_event(end_);
    }
    changed_.notify_all();
    for (connection& peer : ending)
        peer.thread.join();
}

std::string stand_in::open_listener() {
    if (acceptor_.joinable())
        return {};
    listener_.reset(agt::open_tcp_server_session(address_.c_str(), port_));
    if (!listener_.valid())
        return "cannot listen on " + address_ + " port " + std::to_string(port_) + ": " +
               std::strerror(errno);
    const timeval no_limit = {0,
                              0}; // accepted connections inherit it: an agent may be quiet for long
    setsockopt(listener_.get(), SOL_SOCKET, SO_RCVTIMEO, &no_limit, sizeof no_limit);
    port_ = port_of(listener_.get());
    listener_end_ = make_event();
    acceptor_ = std::thread([this] { accept_loop(); });
    return {};
}

void stand_in::close_listener() {
    if (!acceptor_.joinable())
        return;
    raise_event(listener_end_);
    acceptor_.join();
    listener_.reset();
}

void stand_in::drop_connections() {
    const agt::lock_guard lock(mutex_);
    for (const connection& peer : connections_)
        if (!peer.done)
            shutdown(peer.sockfd.get(), SHUT_RDWR);
}

void stand_in::accept_loop() {
    agt::set_cancel_fd(listener_end_.get());
    while (agt::wait_fd(listener_.get(), POLLIN, -1) == agt::wait_result::ready &&
           !agt::cancelled()) {
        agt::unique_fd sockfd(accept4(listener_.get(), nullptr, nullptr, SOCK_CLOEXEC));
        join_done();
        if (!sockfd.valid())
            continue;
        const int nodelay = 1;
        setsockopt(sockfd.get(), IPPROTO_TCP, TCP_NODELAY, &nodelay, sizeof nodelay);
        add_connection(std::move(sockfd));
    }
}

void stand_in::add_connection(agt::unique_fd sockfd) {
    const agt::lock_guard lock(mutex_);
    connection& peer = connections_.emplace_back();
    peer.id = ++accepted_;
    peer.sockfd = std::move(sockfd);
    peer.thread = std::thread([this, &peer] { serve(peer); });
    changed_.notify_all();
}

void stand_in::join_done() {
    std::list<connection> ended;
    {
        const agt::lock_guard lock(mutex_);
        for (auto peer = connections_.begin(); peer != connections_.end();) {
            const auto here = peer++;
            if (here->done)
                ended.splice(ended.end(), connections_, here);
        }
    }
    for (connection& peer : ended)
        peer.thread.join();
}

void stand_in::serve(connection& peer) {
    agt::set_cancel_fd(end_.get());
    const bool secured = secure(peer);
    int served = 0;
    while (secured && served != options().close_after_messages &&
           agt::wait_data(peer.sockfd.get(), -1) == agt::wait_result::ready && wait_reading() &&
           serve_message(peer))
        ++served;
    const agt::lock_guard lock(mutex_);
    agt::end_tls_session(peer.sockfd.get(), true);
    peer.sockfd.reset();
    peer.done = true;
    changed_.notify_all();
}

// Of an agent that is refused nothing is said to it but the alert.
bool stand_in::secure(const connection& peer) {
    std::string why;
    if (identity_ == nullptr)
        return true;
    identity_->refresh(&why);
    if (agt::secure_socket(peer.sockfd.get(),
                           identity_->begin(peer.sockfd.get(), agt::tls_side::accepts, {}),
                           agt::TLS_HANDSHAKE_MS, &why))
        return true;
    if (refused_ && !agt::cancelled())
        refused_(why);
    return false;
}

// Waits while reading is stopped; false at the end.
bool stand_in::wait_reading() const {
    const agt::lock_guard lock(mutex_);
    changed_.wait(mutex_,
                  [this]() AGT_REQUIRES(mutex_) { return stopping_ || !options_.stop_reading; });
    return !stopping_;
}

// Receives one message and answers it; false when the connection is to be closed.
bool stand_in::serve_message(connection& peer) {
    exchange now{};
    now.connection = peer.id;
    if (agt::recv_tcp_data(peer.sockfd.get(), &now.request, sizeof now.request) != TCP_CMD_MSG_SIZE)
        return false;
    now.nth = record(peer, now.request);
    if (agt::magic_bit_check(peer.sockfd.get(), &now.request) != 1)
        return false;
    const stand_in_options options_now = options();
    const char type = now.request.hdr.msg_type[0];
    const auto own = options_now.faults.find(type);
    const answer_fault& fault = own == options_now.faults.end() ? options_now.fault : own->second;
    std::string answer = answer_to(peer, now.request);
    if (!answer.empty())
        spoil(answer, fault);
    if (options_now.hook)
        options_now.hook(now, answer);
    return answer.empty() || deliver(peer, std::move(answer), fault);
}

// Keeps the message; how many of its type the connection has sent.
int stand_in::record(connection& peer, const TCP_CMD_MSG& frame) {
    observe(peer, false, bytes_of(frame));
    const agt::lock_guard lock(mutex_);
    if (options_.record)
        messages_.push_back({frame, peer.id, std::chrono::system_clock::now()});
    changed_.notify_all();
    return ++peer.seen[frame.hdr.msg_type[0]];
}

std::string stand_in::answer_to(connection& peer, const TCP_CMD_MSG& request) {
    switch (request.hdr.msg_type[0]) {
    case MSG_DEVICE_INFO_REQ:
        return bytes_of(result_answer(MSG_DEVICE_INFO_RSP, '0'));
    case MSG_HEALTH_CHECK_REQ:
        return bytes_of(health_answer(options().svr_gap_time));
    case MSG_NOTIFY_ACTIVE_SERVICE_DETAIL_REQ:
        return bytes_of(notify_answer(request));
    case MSG_UPDATE_SERVICE_LIST_REQ:
        return bytes_of(result_answer(MSG_UPDATE_SERVICE_LIST_RSP, options().update_result));
    case MSG_GET_SERVICE_LIST_REQ:
        start_list(peer);
        return next_block(peer);
    case MSG_GET_SERVICE_LIST_RSPACK:
        return next_block(peer);
    default:
        return {};
    }
}

void stand_in::start_list(connection& peer) {
    const agt::lock_guard lock(mutex_);
    peer.blocks = options_.raw_blocks.empty() ? blocks_of(services_) : options_.raw_blocks;
    peer.next_block = 0;
}

std::string stand_in::next_block(connection& peer) {
    return peer.next_block < peer.blocks.size() ? bytes_of(peer.blocks[peer.next_block++]) : "";
}

// Sends the answer as the fault wants it; false when the connection is to be closed.
bool stand_in::deliver(connection& peer, std::string answer, const answer_fault& fault) {
    if (fault.silent)
        return true;
    if (fault.delay_ms > 0 && !agt::sleep_ms(fault.delay_ms))
        return false;
    const bool cut = fault.close_after_bytes >= 0;
    const linger at_once = {fault.reset ? 1 : 0, 0};
    setsockopt(peer.sockfd.get(), SOL_SOCKET, SO_LINGER, &at_once, sizeof at_once);
    if (cut)
        answer.resize(std::min(answer.size(), static_cast<std::size_t>(fault.close_after_bytes)));
    const auto first = static_cast<std::size_t>(std::max(fault.split_after_bytes, 0));
    if (first > 0 && first < answer.size()) {
        if (!send_part(peer, answer.substr(0, first)) || !agt::sleep_ms(fault.pause_ms))
            return false;
        answer.erase(0, first);
    }
    return (answer.empty() || send_part(peer, answer)) && !cut;
}

bool stand_in::send_part(connection& peer, const std::string& bytes) {
    observe(peer, true, bytes);
    return agt::send_tcp_data(peer.sockfd.get(), bytes.data(), static_cast<int>(bytes.size())) > 0;
}

void stand_in::observe(const connection& peer, bool sent, std::string bytes) {
    const agt::lock_guard lock(observer_mutex_);
    if (observer_)
        observer_({peer.id, sent, std::move(bytes)});
}

void stand_in::set_services(std::vector<SERVICE_ELEMENT> services) {
    const agt::lock_guard lock(mutex_);
    services_ = std::move(services);
}

void stand_in::change(const std::function<void(stand_in_options&)>& edit) {
    {
        const agt::lock_guard lock(mutex_);
        edit(options_);
    }
    changed_.notify_all();
}

stand_in_options stand_in::options() const {
    const agt::lock_guard lock(mutex_);
    return options_;
}

std::vector<received_message> stand_in::messages() const {
    const agt::lock_guard lock(mutex_);
    return messages_;
}

std::size_t stand_in::count(char type) const {
    std::size_t found = 0;
    for (const received_message& message : messages())
        found += message.frame.hdr.msg_type[0] == type ? 1 : 0;
    return found;
}

int stand_in::connections() const {
    const agt::lock_guard lock(mutex_);
    return accepted_;
}

void stand_in::forget_messages() {
    const agt::lock_guard lock(mutex_);
    messages_.clear();
}

std::optional<received_message> stand_in::wait_for(char type, std::size_t nth, int limit_ms) const {
    std::optional<received_message> found;
    const auto arrived = [&]() AGT_REQUIRES(mutex_) {
        std::size_t missing = nth;
        for (const received_message& message : messages_)
            if (message.frame.hdr.msg_type[0] == type && --missing == 0) {
                found = message;
                return true;
            }
        return false;
    };
    const agt::lock_guard lock(mutex_);
    changed_.wait_for(mutex_, std::chrono::milliseconds(limit_ms), arrived);
    return found;
}

bool stand_in::wait_connections(int count, int limit_ms) const {
    const agt::lock_guard lock(mutex_);
    return changed_.wait_for(mutex_, std::chrono::milliseconds(limit_ms),
                             [&]() AGT_REQUIRES(mutex_) { return accepted_ >= count; });
}

bool stand_in::wait_open_connections(int count, int limit_ms) const {
    const agt::lock_guard lock(mutex_);
    return changed_.wait_for(
        mutex_, std::chrono::milliseconds(limit_ms), [&]() AGT_REQUIRES(mutex_) {
            return count == std::count_if(connections_.begin(), connections_.end(),
                                          [](const connection& peer) { return !peer.done; });
        });
}

} // namespace kessctl

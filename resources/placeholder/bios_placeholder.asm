; The placeholder for boot image record 125: a PXE boot program for PCs with
; a legacy BIOS. A PXE ROM loads it at 0000:7C00 and jumps to it in real
; mode. It says what it is and what the deployer has to supply, on the screen
; (BIOS teletype output) and on the first serial port (written to the UART
; directly, so that a console redirected to a serial line or a test reading
; the line sees it too), waits a few seconds and hands the PC back to its
; firmware with int 18h, which goes on with the next boot device.
;
; Built with `nasm -f bin`; the build wraps the output into record 125.

bits 16
org 0x7C00

kWaitTicks equ 91                 ; 5 s of the 18.2 Hz BIOS timer
kUartPollLimit equ 0x4000         ; a UART that never gets ready is skipped

start:
        cli
        jmp     0x0000:main       ; some ROMs enter as 07C0:0000
main:
        xor     ax, ax
        mov     ds, ax
        mov     es, ax
        cld
        sti                       ; the timer tick must run while we wait

        ; The first serial port's I/O base, as the BIOS found it (0 when
        ; there is none).
        mov     ax, [0x0400]
        mov     [serial_base], ax

        mov     si, message
        call    print

        ; Wait on the BIOS tick count at 0040:006C; the 16-bit difference
        ; also survives the count's midnight wrap.
        mov     bx, [0x046C]
.wait:
        hlt
        mov     ax, [0x046C]
        sub     ax, bx
        cmp     ax, kWaitTicks
        jb      .wait

        mov     si, farewell
        call    print
        int     0x18              ; next boot device
        ; A firmware whose int 18h returns has nothing left to boot.
.stop:
        hlt
        jmp     .stop

; Prints the zero-terminated text at DS:SI on the screen and the serial port.
print:
        lodsb
        test    al, al
        jz      .done
        push    si
        mov     ah, 0x0E
        mov     bx, 0x0007
        int     0x10
        call    serial_out
        pop     si
        jmp     print
.done:
        ret

; Sends AL to the first serial port once it can take a byte; keeps AL.
serial_out:
        mov     dx, [serial_base]
        test    dx, dx
        jz      .done
        mov     ah, al
        add     dx, 5             ; line status register
        mov     cx, kUartPollLimit
.ready:
        in      al, dx
        test    al, 0x20          ; transmitter holding register empty
        jnz     .send
        loop    .ready
        mov     al, ah
        jmp     .done
.send:
        sub     dx, 5
        mov     al, ah
        out     dx, al
.done:
        ret

serial_base: dw 0

message:
        db 13, 10, "Tarnlift placeholder boot image (record 125)", 13, 10
        db "This PC was network-booted by Tarnlift, but Tarnlift carries only this", 13, 10
        db "placeholder instead of the boot image for PCs with a legacy BIOS.", 13, 10
        db "The real BIOS boot image must be supplied as record 125:", 13, 10
        db "  tarnlift bootimage wrap 125 FILE FOLDER", 13, 10
        db "where FOLDER is one the server searches (the first that has it wins):", 13, 10
        db "  - the folder given with --boot-images DIR,", 13, 10
        db "  - otherwise the per-user folder: ~/.local/share/tarnlift/bootimages on", 13, 10
        db "    Linux, %LOCALAPPDATA%\Tarnlift\bootimages on Windows,", 13, 10
        db "  - then the system folder: /usr/share/tarnlift/bootimages on Linux,", 13, 10
        db "    the bootimages folder beside tarnlift.exe on Windows.", 13, 10
        db "`tarnlift bootimage list` shows which records the server finds, and where.", 13, 10, 0
farewell:
        db "Returning to the firmware: next boot device.", 13, 10, 0

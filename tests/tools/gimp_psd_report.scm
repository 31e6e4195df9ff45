; Script-Fu for GIMP in batch mode: every layer of a document (groups
; walked into), with its size, opacity, mode and first pixel, and the count
; of channels, written to a port.
(define (psd-report-layers layers depth out)
  (for-each
    (lambda (layer)
      (let ((name (car (gimp-item-get-name layer)))
            (group (car (gimp-item-is-group layer)))
            (width (car (gimp-drawable-width layer)))
            (height (car (gimp-drawable-height layer)))
            (opacity (car (gimp-layer-get-opacity layer))))
        (display (string-append "layer " (number->string depth) " " name
                                " group=" (number->string group)
                                " size=" (number->string width) "x" (number->string height)
                                " opacity=" (number->string (round opacity))) out)
        (if (and (= group 0) (> width 0))
            (let ((pixel (cadr (gimp-drawable-get-pixel layer 0 0))))
              (display (string-append " pixel=" (number->string (vector-ref pixel 0)) ","
                                      (number->string (vector-ref pixel 1)) ","
                                      (number->string (vector-ref pixel 2))) out)))
        (newline out)
        (if (= group 1)
            (psd-report-layers (vector->list (cadr (gimp-item-get-children layer))) (+ depth 1) out))))
    layers))

(define (psd-report file report)
  (let* ((out (open-output-file report))
         (image (car (gimp-file-load RUN-NONINTERACTIVE file file))))
    (psd-report-layers (vector->list (cadr (gimp-image-get-layers image))) 0 out)
    (display (string-append "channels " (number->string (car (gimp-image-get-channels image)))) out)
    (newline out)
    (close-output-port out)))
